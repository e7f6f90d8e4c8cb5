# bash completion of the endpointregistry tool: subcommands, their options,
# and the user's groups after --trustee.
_endpointregistry() {
  local current previous command word
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD-1]}
  command=
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      -*) ;;
      *) command=$word; break ;;
    esac
  done
  case $previous in
    --trustee)
      COMPREPLY=($(compgen -W "$(endpointregistry groups 2>/dev/null)" -- "$current"))
      return ;;
    --group|--interval|--prefix|--host|--ttl|--etcd|--user)
      COMPREPLY=()
      return ;;
    --cacert|--cert|--key|--password-file)
      COMPREPLY=($(compgen -f -- "$current"))
      return ;;
  esac
  local options
  case $command in
    "") COMPREPLY=($(compgen -W "list publish watch groups inspect gc bridge help --help --version --verbose" -- "$current"))
        return ;;
    list) options="--group --trustee --all-trustees --long --no-legend --json --json=pretty --json=short --exit-status --help" ;;
    publish) options="--group --trustee --help --" ;;
    watch) options="--group --trustee --all-trustees --interval --json --timestamps --help" ;;
    groups) options="--help" ;;
    inspect) options="--trustee --json --json=pretty --json=short --help" ;;
    gc) options="--trustee --all-trustees --json --json=pretty --json=short --help" ;;
    bridge) options="--etcd --group --prefix --host --trustee --ttl --cacert --cert --key --user --password-file --help" ;;
    *) COMPREPLY=(); return ;;
  esac
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$current"))
  else
    COMPREPLY=()
  fi
}
complete -F _endpointregistry endpointregistry
