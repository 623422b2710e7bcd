#compdef vexa-host vexa-unit
# zsh completion for vexa-host and vexa-unit, which know themselves what can come next.
local line files
local -a offers
while IFS= read -r line; do
    case $line in
    :files) files=_files ;;
    :folders) files='_files -/' ;;
    *) offers+=("${${line%%$'\t'*}//:/\\:}:${line#*$'\t'}") ;;
    esac
done < <("${words[1]}" --complete "${(@)words[2,CURRENT]}" 2>/dev/null)
(( $#offers )) && _describe command offers
[[ -n $files ]] && ${=files}
