#!/bin/bash
# What the programs in a folder offer at a tab, through bash's completion, and whether the manual
# pages have the options that they have.
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
    _vexa "${COMP_WORDS[0]}" || true
    expected=$(printf '%s\n' "$@" | sort)
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
    [[ $offered == "$expected" ]] || { failed=1; diff <(echo "$expected") <(echo "$offered") | sed "s/^/$line: /"; }
}

offers 'vexa-unit ' run scenarios devices ctl check play
offers 'vexa-unit ctl fault s' set
offers 'vexa-unit ctl --dir somewhere cable ' in out flap
offers 'vexa-unit ctl d' detach daq
offers 'vexa-unit ctl fault set node.r' node.read
offers 'vexa-unit run --sc' --scenario
offers 'vexa-unit run --scenario d' default daq-in-use dead-daq
offers 'vexa-unit run --journal x' ''
offers 'vexa-unit run -- vexa-host s' ''
offers 'vexa-host de' decode demo devices
offers 'vexa-host s' sync send stream shell serve
offers 'vexa-host stream Microphone --c' --csv
offers 'vexa-host ping -' --help --dir --tcp --serial --rts-cts --usb --wait -n --size --timeout --arm --json
vexa-unit run --dir unit$$ >/dev/null &
unit=$!
trap 'kill $unit; rm -rf unit$$' EXIT
until vexa-unit ctl --dir unit$$ state &>/dev/null; do sleep 0.02; done
offers "vexa-host stream --dir unit$$ Acc" Accelerometer
offers "vexa-unit ctl --dir unit$$ detach Ba" Barometer

mkdir unit$$/man && cp "$3"/*.1 unit$$/man
"$(dirname "$2")/../update-manuals" "$1" unit$$/man
for program in vexa-unit vexa-host; do
    diff "$3/$program.1" unit$$/man/$program.1 || { failed=1; echo "run: packaging/update-manuals $1"; }
done
exit $failed
