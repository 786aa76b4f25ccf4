# SPDX-License-Identifier: Apache-2.0
# bash: completion of security-privacy-cli, which itself says what may follow.
_security_privacy_cli() {
    local word
    local -a words=("${COMP_WORDS[@]:1:COMP_CWORD}")
    COMPREPLY=()
    while IFS=$'\t' read -r word _; do
        if [[ $word == @file ]]; then
            mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")
        else
            COMPREPLY+=("$word")
        fi
    done < <("${COMP_WORDS[0]}" complete -- "${words[@]}" 2>/dev/null)
}
complete -F _security_privacy_cli security-privacy-cli
