# bash completion for voctl: subcommands, options, and LP names asked of the
# node's D-blades when they answer. Subcommands and options are read from
# voctl's own --help, so a new subcommand needs nothing here.
# shellcheck disable=SC2207 # word lists from help texts: words never hold blanks

# The words of a help section ("Subcommands:", "Positionals:", "Options:"):
# the first word of each of its lines.
_voctl_section() {
    local help=$1 section=$2
    printf '%s\n' "$help" | awk -v s="$section" '
        $0 == s { on = 1; next }
        on && /^[^ ]/ { on = 0 }
        on && /^  [^ ]/ { print $1 }'
}

# Options of a help text, each with ":v" when it takes a value
# ("--interval FLOAT"), for counting positionals and offering names.
_voctl_options() {
    printf '%s\n' "$1" | awk '/^Options:/ { on = 1; next } on && /^[^ ]/ { on = 0 }
        on && /^  -/ {
            n = split($1, names, ",")
            takes = ($2 ~ /^[A-Z]/) ? ":v" : ""
            for (i = 1; i <= n; i++) print names[i] takes
        }'
}

# Adds the words that begin with cur to COMPREPLY (compgen -W, done here
# because zsh's emulation of it does not filter).
_voctl_offer() {
    local cur=$1 w
    shift
    for w in "$@"; do
        [[ $w == "$cur"* ]] && COMPREPLY+=("$w")
    done
    return 0
}

_voctl_complete() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local voctl=${COMP_WORDS[0]} host="" sub="" i w
    COMPREPLY=()

    local top
    top=$("$voctl" --help 2>/dev/null) || return 0
    # Plain word lists rather than mapfile: zsh runs this too.
    local -a subs globals
    subs=($(_voctl_section "$top" "Subcommands:"))
    globals=($(_voctl_options "$top"))

    # Find the subcommand and -H's value among the words before the cursor.
    for ((i = 1; i < COMP_CWORD; i++)); do
        w=${COMP_WORDS[i]}
        if [[ -z $sub ]]; then
            case $w in
                -H | --host) host=${COMP_WORDS[i + 1]}; ((i++)); continue ;;
                --timeout) ((i++)); continue ;;
                -*) continue ;;
            esac
            sub=$w
            break
        fi
    done

    if [[ -z $sub ]]; then
        case $prev in
            -H | --host | --timeout) return 0 ;;
        esac
        if [[ $cur == -* ]]; then
            _voctl_offer "$cur" "${globals[@]//:v/}"
        else
            _voctl_offer "$cur" "${subs[@]}"
        fi
        return 0
    fi

    local help
    help=$("$voctl" "$sub" --help 2>/dev/null) || return 0
    local -a opts positionals
    opts=($(_voctl_options "$help"))
    positionals=($(_voctl_section "$help" "Positionals:"))

    # The value of an option is not completed (it is a number or a host).
    local o
    for o in "${opts[@]}"; do
        [[ $o == *:v && $prev == "${o%:v}" ]] && return 0
    done
    if [[ $cur == -* ]]; then
        _voctl_offer "$cur" "${opts[@]//:v/}"
        return 0
    fi

    # Which positional the cursor is on: words after the subcommand that are
    # neither options nor their values. The last positional repeats (mirror's
    # DST-LP...).
    local n=0 j
    for ((j = i + 1; j < COMP_CWORD; j++)); do
        w=${COMP_WORDS[j]}
        if [[ $w == -* ]]; then
            for o in "${opts[@]}"; do
                [[ $o == "$w:v" ]] && ((j++))
            done
            continue
        fi
        ((n++))
    done
    ((${#positionals[@]} == 0)) && return 0
    ((n >= ${#positionals[@]})) && n=$((${#positionals[@]} - 1))
    if [[ ${positionals[n]} == *LP* ]]; then
        local -a lps hostopt=()
        [[ -n $host ]] && hostopt=(-H "$host")
        lps=($("$voctl" "${hostopt[@]}" --timeout 2 lps 2>/dev/null | awk 'NR > 1 { print $1 }'))
        _voctl_offer "$cur" "${lps[@]}"
    fi
    return 0
}

complete -F _voctl_complete voctl
