# bash completion for vexa-host and vexa-unit, which know themselves what can come next.
_vexa() {
    local line
    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
        :files) compopt -o default ;;
        :folders) compopt -o dirnames ;;
        *) COMPREPLY+=("${line%%$'\t'*}") ;;
        esac
    done < <("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
} && complete -F _vexa vexa-host vexa-unit
