# fish completion for vexa-host and vexa-unit, which know themselves what can come next.
function __vexa_complete
    set -l words (commandline -opc) (commandline -ct)
    for line in ($words[1] --complete $words[2..-1] 2>/dev/null)
        switch $line
            case :files :folders
                __fish_complete_path $words[-1]
            case '*'
                echo $line
        end
    end
end
complete -c vexa-host -f -a '(__vexa_complete)'
complete -c vexa-unit -f -a '(__vexa_complete)'
