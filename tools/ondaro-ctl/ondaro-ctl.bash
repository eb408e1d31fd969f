# Completion of ondaro-ctl for bash: verbs, options, and the names of properties.

_ondaro_ctl() {
  local -A options=(
    [get]='' [set]='' [list]='' [dump]='' [load]=''
    [watch]='-n --count --timeout'
    [wait]='--timeout'
    [store get]='--int'
    [store set]='--int'
    [store watch]='-n --count --timeout'
    [device]=''
    [auth generate]='--key --cert --force'
    [auth sign]='--key --hash --hash-file --out --force'
    [auth system-id]=''
    [serve]='-n --count --timeout'
    [listen]='-n --count --timeout'
    [send]='--timeout --replay --speed'
    [doctor]='--key --cert --description'
    [trace]='--format'
  )
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb='' words='' i

  for ((i = 1; i < COMP_CWORD; i++)); do
    case $verb:${COMP_WORDS[i]} in
      *:--log) ((i++)) ;;
      *:-*) ;;
      :*) verb=${COMP_WORDS[i]} ;;
      store:* | auth:*) verb+=" ${COMP_WORDS[i]}" ;;
    esac
  done

  case $previous in
    --log) words='verbose debug info warning error fatal off' ;;
    --format) words='summary chrome mermaid' ;;
    --key | --cert | --hash-file | --out | --description | --replay) return ;;
    -n | --count | --timeout | --speed | --hash | =)
      compopt +o default
      return
      ;;
    *)
      case $verb:$current in
        :-*) words='--json --log --version --help -h' ;;
        *:-*) words="${options[$verb]} --json --log --help -h" ;;
        get:* | set:* | watch:* | wait:*)
          # All but watch take one name.
          [[ $previous = [A-Z]* && $verb != watch ]] ||
            words=$("$1" list 2>/dev/null | cut -d ' ' -f 1)
          ;;
        :* | store:* | auth:*)
          for i in "${!options[@]}"; do
            [[ $i = "${verb:+$verb }"* ]] || continue
            i=${i#"$verb "}
            words+=" ${i%% *}"
          done
          ;;
      esac
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current" | sort -u)
}
complete -o default -F _ondaro_ctl ondaro-ctl
