# Completion of ondaro-ctl for bash: verbs, options, properties and their words. Starts nothing.

_ondaro_ctl() {
  local -A options=(
    [get]='' [list]='' [dump]='' [load]='--force'
    [set]='--force'
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
  # What may be done: r get, w set, e watch and wait; then the words, where not any text will do.
  local -A properties=(
    [ONDARO_CLEAR_DATA]='rwe true false'
    [ONDARO_ENABLE_USAGE_RPT]='rwe false default true set'
    [ONDARO_ENROLLMENT]='rwe'
    [ONDARO_INIT]='rw true false'
    [ONDARO_SET_PROCESS_GRP]='w'
    [ONDARO_STATUS]='rwe'
    [ONDARO_SUPPORT]='rwe true false'
    [ONDARO_TOS_STATUS]='rwe'
    [SDR]='r'
    [SYSTEM_ID]='r'
    [TARGET_REPOSITORY]='r'
    [WIDEVINE_ONDARO_SUPPORT]='rwe'
    [WIDEVINE_ONDARO_VERSION]='rwe'
  )
  local -A letters=([get]=r [set]=w [watch]=e [wait]=e [list]='')
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb='' words='' i

  for ((i = 1; i < COMP_CWORD; i++)); do
    case $verb:${COMP_WORDS[i]} in
      *:--log) ((i++)) ;;
      *:-*) ;;
      :*) verb=${COMP_WORDS[i]} ;;
      store:* | auth:*) verb+=" ${COMP_WORDS[i]}" ;;
    esac
  done
  # NAME=VALUE comes as three words.
  if [ "$current" = = ]; then
    current=''
  elif [ "$previous" = = ]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  previous=${previous%!}

  case $previous in
    --log) words='verbose debug info warning error fatal off' ;;
    --format) words='summary chrome mermaid' ;;
    --key | --cert | --hash-file | --out | --description | --replay) return ;;
    -n | --count | --timeout | --speed | --hash)
      compopt +o default
      return
      ;;
    *)
      case $verb:$current in
        :-*) words='--json --log --version --help -h' ;;
        *:-*) words="${options[$verb]} --json --log --help -h" ;;
        get:* | set:* | watch:* | wait:* | list:*)
          if [[ $verb = @(set|wait) && -n ${properties[$previous]-} ]]; then
            words=${properties[$previous]#* }
            [[ ${properties[$previous]} = *' '* ]] || words=''
          else
            for i in "${!properties[@]}"; do
              [[ ${properties[$i]%% *} != *"${letters[$verb]}"* ]] || words+=" $i"
            done
          fi
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
