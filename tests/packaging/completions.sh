#!/bin/bash
# What bash offers at a tab, for the programs in a folder.
# usage: completions.sh FOLDER COMPLETION_FILE MANUAL_FOLDER
set -eu
PATH=$1:$PATH
source "$2"
compopt() { :; } # works only while bash completes
failed=0

# offers "LINE" WORD...: at the end of LINE exactly these are offered; all begin with its last word.
offers() {
    local line=$1 expected offered
    shift
    read -ra COMP_WORDS <<<"$line"
    [[ $line == *' ' ]] && COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _vexa "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" || true
    expected=$(printf '%s\n' "$@" | sort)
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
    [[ $offered == "$expected" ]] || { failed=1; diff <(echo "$expected") <(echo "$offered") | sed "s/^/$line: /"; }
}

offers 'vexa-unit ' run scenarios ctl check play
offers 'vexa-unit ctl fault s' set
offers 'vexa-unit ctl --dir somewhere cable ' in out flap
offers 'vexa-unit ctl d' detach daq
offers 'vexa-unit run --' --help --scenario --dir --vexa --vexcri --journal --describe
offers 'vexa-unit run --scenario d' default daq-in-use dead-daq
offers 'vexa-unit run --journal x' ''
offers 'vexa-unit run -- vexa-host s' ''
offers 'vexa-host s' sync send stream shell
offers 'vexa-host stream Microphone --c' --csv
offers 'vexa-host ping -' -h --help --dir --tcp --serial --rts-cts -n --size --timeout --arm --json

# The manual has every command.
for program in vexa-unit vexa-host; do
    while read -r command _; do
        grep -q "^\.It Cm $command\b" "$3/$program.1" || { failed=1; echo "$program.1 does not tell of $command"; }
    done < <("$program" --help | sed -n '/^Subcommands:/,/^$/s/^  //p')
done
exit $failed
