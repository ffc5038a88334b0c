#!/usr/bin/env bash
# check-completion.sh [BASH_COMPLETION_FILE [ZSH_COMPLETION_FILE]]
#
# The completion's own checks, against the voctl found on PATH: every
# subcommand of voctl --help is offered, prefixes narrow the list, global and
# subcommand options are offered, option values are left alone, and LP
# arguments get the node's LP names. VOCTL_CHECK_LPS="lp1a lp1b ..." says which
# names the node has; without it, an LP argument must offer nothing quietly
# (no node to ask). Prints "N passed, N failed"; exits 1 on any failure.
set -uo pipefail
BASH_FILE=${1:-/usr/share/bash-completion/completions/voctl}
ZSH_FILE=${2:-/usr/share/zsh/vendor-completions/_voctl}
# shellcheck source=/dev/null
source "$BASH_FILE"

passed=0 failed=0
# complete LINE: COMPREPLY for the cursor at the end of LINE (a trailing
# space means a new, empty word).
complete_line() {
    read -r -a COMP_WORDS <<<"$1"
    [[ $1 == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _voctl_complete
    printf '%s\n' "${COMPREPLY[@]}" | sort
}
# expect NAME LINE WANT...: every WANT word is offered (WANT "-" : nothing).
expect() {
    local name=$1 line=$2
    shift 2
    local got
    got=$(complete_line "$line")
    local w bad=""
    if [[ $1 == - ]]; then
        [[ -n $got ]] && bad="offered: ${got//$'\n'/ }"
    else
        for w in "$@"; do
            grep -qxF -- "$w" <<<"$got" || bad+=" $w"
        done
        [[ -n $bad ]] && bad="missing:$bad (offered: ${got//$'\n'/ })"
    fi
    if [[ -z $bad ]]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAIL $name: '$line' $bad" >&2
    fi
}
# expect_only NAME LINE WORD...: exactly these words are offered.
expect_only() {
    local name=$1 line=$2
    shift 2
    local got want
    got=$(complete_line "$line")
    want=$(printf '%s\n' "$@" | sort)
    if [[ $got == "$want" ]]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAIL $name: '$line' offered: ${got//$'\n'/ }; wanted: $*" >&2
    fi
}

mapfile -t subs < <(voctl --help | awk '$0 == "Subcommands:" { on = 1; next }
    on && /^[^ ]/ { on = 0 } on && /^  [^ ]/ { print $1 }')
if ((${#subs[@]} < 20)); then
    echo "FAIL voctl --help lists ${#subs[@]} subcommands" >&2
    failed=$((failed + 1))
fi

expect "every subcommand" "voctl " "${subs[@]}"
expect_only "a prefix narrows" "voctl mirror-" mirror-cancel mirror-join mirror-leave \
    mirror-pause mirror-progress mirror-resume
expect "subcommand after global options" "voctl -H node1 --json to" top
expect "global options" "voctl --" --host --timeout --json --help
expect "subcommand options" "voctl copy 1 lp1a lp2a x --" --no-wait --interval --help
expect "trace-mask's preset" "voctl trace-mask --" --preset
expect "top's options" "voctl top --" --vldb-host --interval --linger --count
expect "host value left alone" "voctl -H " -
expect "option value left alone" "voctl top --interval " -
expect "a VFS id is not an LP" "voctl copy " -

if [[ -n ${VOCTL_CHECK_LPS:-} ]]; then
    read -r -a lps <<<"$VOCTL_CHECK_LPS"
    expect "copy's SRC-LP" "voctl copy 1001 " "${lps[@]}"
    expect "copy's DST-LP after an option" "voctl copy --no-wait 1001 lp1a " "${lps[@]}"
    expect "every mirror DST-LP" "voctl mirror 1001 lp1a lp2a lp2b " "${lps[@]}"
    expect_only "LP prefix" "voctl move 1001 ${lps[0]} ${lps[0]}" "${lps[0]}"
else
    expect "no node, no LP names, no noise" "voctl copy 1001 " -
fi

# zsh: the same logic through its bash emulation; the file must at least load.
if command -v zsh >/dev/null && [[ -r $ZSH_FILE ]]; then
    if zsh -n "$ZSH_FILE"; then passed=$((passed + 1)); else
        failed=$((failed + 1))
        echo "FAIL zsh completion does not parse" >&2
    fi
fi

echo "completion: $passed passed, $failed failed"
((failed == 0))
