# shellcheck shell=bash
# Sourced by the scripts here, after steps.sh: Debian packages that the work at hand needs.

# What configuring and building takes, but for what one preset needs beyond it.
packages_to_build() {
    echo cmake ninja-build g++ googletest python3 pkg-config libcli11-dev libssl-dev libpcap-dev \
        libboost-url1.81-dev
}

# The packages that building and testing a preset takes.
packages_of_preset() {
    packages_to_build
    echo dpkg-dev file # for the Debian packages
    # Whom the tests let the programs talk to, and who judges what they say.
    echo curl tshark nginx haproxy apache2-bin \
        python3-requests python3-requests-toolbelt python3-zeep
    case $1 in
        i386) echo g++-multilib ;;
        clang) echo clang-14 ;;
        fuzz) echo clang-14 libclang-rt-14-dev ;;
        bench) echo libbenchmark-dev ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

install_packages() {
    as_root apt-get -o DPkg::Lock::Timeout=300 update &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 \
            install -y --no-install-recommends "$@"
}

# need_packages NAME...: installs those that are missing; stops with the reason where it can't.
need_packages() {
    local name missing=()
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        fail "$(. /etc/os-release 2>/dev/null && echo "${PRETTY_NAME:-this system}") has no apt-get;" \
            "these scripts run on Debian 12. Elsewhere install cmake 3.25, ninja, g++ 12, python3 and" \
            "GoogleTest's sources and see CONTRIBUTING.md."
    fi
    for name; do
        is_installed "$name" || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        fail "these Debian packages are missing, and installing them takes root or sudo: ${missing[*]}"
    fi
    step "install ${missing[*]}" install_packages "${missing[@]}"
}
