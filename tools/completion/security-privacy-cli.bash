# SPDX-License-Identifier: Apache-2.0
# bash: completion of security-privacy-cli, from the manual that the program itself prints for the command so far.
_security_privacy_cli() {
    local typed=${COMP_WORDS[COMP_CWORD]} option='' text='' words
    local -a before=("${COMP_WORDS[@]:0:COMP_CWORD}")
    # bash takes "--mode=denied" for three words.
    [[ $typed != = ]] || typed=
    [[ ${before[-1]} != = ]] || unset 'before[-1]'
    if [[ ${before[-1]} == -* ]]; then
        option=${before[-1]}
        text=$({ "${before[@]:0:${#before[@]}-1}" --help; "${before[0]}" --help; } 2>/dev/null |
            sed -nE "s/^  (-.,)?$option ([^ ]+).*/\2/p" | head -n 1)
    fi
    case $text in
        FILE | FOLDER)
            mapfile -t COMPREPLY < <(compgen -f -- "$typed")
            return
            ;;
        '') ;;
        *) words=${text//|/ } ;;
    esac
    if [[ -z $text ]]; then
        words=$({ "${before[@]}" --help; "${before[0]}" --help | sed '/^Subcommands:/,/^$/d'; } 2>/dev/null |
            sed -nE -e 's/^  (-.,)?(--[a-z-]+).*/\2/p' -e '/^Subcommands:/,/^$/s/^  ([a-z-]+) .*/\1/p')
        [[ $typed == -* ]] || words=$(grep -v '^-' <<<"$words" || true)
    elif [[ $text != *'|'* ]]; then
        words=
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$typed")
}
complete -F _security_privacy_cli security-privacy-cli
