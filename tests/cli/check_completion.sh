#!/usr/bin/env bash
# The bash completion: registered for the tool, and completing subcommands,
# options and (after --trustee) the user's groups.
# Usage: check_completion.sh COMPLETION_SCRIPT TOOL_DIRECTORY
set -euo pipefail
PATH="$2:$PATH"
# shellcheck source=/dev/null
source "$1"
[ "$(complete -p endpointregistry)" = "complete -F _endpointregistry endpointregistry" ] || { echo "not registered"; exit 1; }
completes() {  # the words typed so far (the last one being completed), then the expected replies
  local typed=$1 expected=$2
  read -ra COMP_WORDS <<<"$typed"
  [[ $typed == *" " ]] && COMP_WORDS+=("")
  COMP_CWORD=$(( ${#COMP_WORDS[@]} - 1 ))
  COMPREPLY=()
  _endpointregistry || true  # compgen fails when nothing matches
  [ "${COMPREPLY[*]}" = "$expected" ] || { echo "'$typed' completes to '${COMPREPLY[*]}', not '$expected'"; exit 1; }
}
completes "endpointregistry li" "list"
completes "endpointregistry -v pu" "publish"
completes "endpointregistry list --gr" "--group"
completes "endpointregistry watch --ti" "--timestamps"
completes "endpointregistry list --json=" "--json=pretty --json=short"
completes "endpointregistry list --trustee " "$(endpointregistry groups 2>/dev/null | tr '\n' ' ' | sed 's/ $//')"
completes "endpointregistry publish a b --group " ""
echo ok
