#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What bash offers behind a command line, with the completion that is installed; and that zsh can read its own.
#
#   completion.sh CLIENT FOLDER_OF_COMPLETIONS
set -euo pipefail

PATH=$(cd "$(dirname "$1")" && pwd):$PATH
folder=$(cd "$2" && pwd)
# shellcheck source=/dev/null
source "$folder/security-privacy-cli.bash"

# offers EXPECTED WORD...: the last word is the one that is being typed.
offers() {
    local expected=$1
    shift
    COMP_WORDS=(security-privacy-cli "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _security_privacy_cli
    [[ ${COMPREPLY[*]} == "$expected" ]] || { echo "completion: '$*' offers '${COMPREPLY[*]}', not '$expected'" >&2; exit 1; }
}

offers "groups usage gtoken ping status monitor" ""
offers "summary timeline" usage ""
offers "--mode" usage timeline --mo
offers "allowed denied" usage timeline --mode ""
offers "--directory" usage timeline --bundle x --dir
offers "background" usage timeline --app-state = b
cd "$folder"
offers "" usage timeline --bundle ""
offers "--count --compact" ping --c
offers "security-privacy-cli.bash" gtoken add --from secu
[[ $(complete -p security-privacy-cli) == *_security_privacy_cli* ]]

if command -v zsh >/dev/null; then
    # shellcheck disable=SC2016
    offered=$(zsh -fc '_describe() { print -r -- "${(P@)2}" }; words=(security-privacy-cli usage timeline --app-state "")
        CURRENT=5; source "$1"' zsh "$folder/_security-privacy-cli")
    [[ $offered == "foreground background" ]] || { echo "completion: zsh offers '$offered'" >&2; exit 1; }
fi
