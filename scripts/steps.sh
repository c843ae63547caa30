# shellcheck shell=bash
# Sourced by the scripts here: one line a step, with its time; what a step prints is shown only
# where it fails, the end of it, and kept in build/log.

export LC_ALL=C.UTF-8

fail() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

# step TITLE COMMAND [ARGUMENT...]
step() {
    local title=$1 begin=$SECONDS log
    shift
    mkdir -p build/log
    log=build/log/$(tr -cs '[:alnum:]\n' '-' <<<"$title" | sed 's/-*$//').txt
    printf '%s ... ' "$title"
    # Asked for its result in an if, a function would go on after a command that failed.
    set +e
    (set -e && "$@") </dev/null >"$log" 2>&1
    local result=$?
    set -e
    if [ $result -eq 0 ]; then
        printf '%d s\n' $((SECONDS - begin))
    else
        printf 'FAILED after %d s\n' $((SECONDS - begin))
        tail -n 100 "$log" | cut -c 1-2000
        echo
        fail "$title failed; all it said is in $log"
    fi
}

# The titles of steps say what is done with one preset.
configure_preset() { step "configure $1" cmake --preset "$1"; }
build_preset() { step "build $*" cmake --build --preset "$1" "${@:2}"; }

# Shows ctest's summary, and after a failure what the failed tests said.
test_preset() {
    step "test $1" ctest --preset "$1"
    sed -n '/% tests passed/,$p' "build/log/test-$1.txt"
}
