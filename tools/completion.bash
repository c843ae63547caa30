# Completion in bash for the programs of postwire, from what each says with --help.
_postwire() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} help value command=()
    if [[ $1 == *postwire-trace && $COMP_CWORD -gt 1 ]]; then command=("${COMP_WORDS[1]}"); fi
    help=$("$1" "${command[@]}" --help 2>/dev/null) || return 0
    if [[ $before == --* ]]; then
        value=$(sed -nE "s/^  (-.,)?${before//[^-a-z]/} ([A-Z]+).*/\2/p" <<<"$help")
    fi
    case $value in
        DIR) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        ROLE) mapfile -t COMPREPLY < <(compgen -W 'client server guess' -- "$word") ;;
        ?*) COMPREPLY=() ;; # a file's name, or what nobody can guess
        *)
            local names='s/^  (-.,)?(--[a-z-]+).*/\2/p'
            [[ $word == -* || $1 != *postwire-trace ]] || names='/^Commands:/,/^$/s/^  ([a-z]+) .*/\1/p'
            mapfile -t COMPREPLY < <(compgen -W "$(sed -nE "$names" <<<"$help")" -- "$word")
            ;;
    esac
}
complete -o bashdefault -o default -F _postwire postwire-serve postwire-send postwire-trace
