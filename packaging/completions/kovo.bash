# bash completion for kovo

_kovo() {
  local current previous command options
  COMPREPLY=()
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD - 1]}
  command=${COMP_WORDS[1]-}

  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W 'get put request cache resume help --help --version' -- "$current")
    return
  fi

  # "--option=value" comes as three words, with '=' as one of them.
  if [[ $current == = ]]; then
    current=
  elif [[ $previous == = ]] && ((COMP_CWORD >= 2)); then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  [[ $current == '' && $previous == = ]] && previous=${COMP_WORDS[COMP_CWORD - 2]}

  case $command:$previous in
    get:-o | get:--output | get:-i | get:--input-file | *:--trace)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    get:-d | get:--dir)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    *:--progress)
      mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$current")
      return
      ;;
    put:-X | put:--request)
      mapfile -t COMPREPLY < <(compgen -W 'PUT POST PATCH' -- "$current")
      return
      ;;
    request:-X | request:--request)
      mapfile -t COMPREPLY < <(compgen -W 'GET HEAD POST PUT PATCH DELETE OPTIONS' -- "$current")
      return
      ;;
    *:-n | *:--connections | *:--limit-rate | *:--retries | *:--priority | *:-H | *:--header | \
      *:-A | *:--user-agent | *:--proxy-user | *:--timeout | *:-p | *:--parallel | *:-r | \
      *:--range | *:--sha256 | *:--chunk-size | *:--part-size | request:-d | request:--data)
      return
      ;;
  esac

  local request='-H --header -A --user-agent --proxy-user --timeout --insecure -q --quiet --help'
  local transfer="-n --connections --adaptive --limit-rate --retries --priority --progress --json
    --trace $request"
  case $command in
    get)
      options="-o --output -J --content-disposition -d --dir -i --input-file -p --parallel --stdout
        -r --range -f --force --skip-existing --sha256 -c --continue --no-continue --chunk-size
        --cache --no-cache $transfer"
      ;;
    put) options="--s3 --sync -X --request --part-size $transfer" ;;
    request) options="-X --request -d --data -i --include --compressed $request" ;;
    cache) options='info clear' ;;
    resume) options='list clear' ;;
    help) options='get put request cache resume help exit-codes' ;;
    *) return ;;
  esac
  if [[ $current == -* || $command == cache || $command == resume || $command == help ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    [[ ${#COMPREPLY[@]} -gt 0 || $command != resume ]] && return
  fi
  if [[ $command == put || $command == resume ]]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}

complete -F _kovo kovo
