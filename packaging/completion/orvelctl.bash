# Completion of orvelctl for bash.

_orvelctl_options_of() {  # the long options of a command
  case $1 in
    claim | release) echo --help --service --claimed ;;
    registered) echo --help --service --registered ;;
    discover) echo --help --service --id --discovery_time --discovery_data --carrier_id ;;
    resume) echo --help --carrier_id ;;
    status) echo --help --json ;;
    send-test) echo --help --text --file --verbose ;;
    doctor) echo --help --ca_file --ca_path ;;
    pause | raw | watch) echo --help ;;
    *) echo --help --version ;;
  esac
}

_orvelctl_handlers() {  # the names of the handlers that the settings file holds, as far as a shell reads them as they stand
  LC_ALL=C sed -n 's/^[[:blank:]]*q_handler_\([A-Za-z0-9_.-]\{1,\}\)[[:blank:]]*=.*/\1/p' "${1:-/etc/orvel/settings}" 2>/dev/null
}

_orvelctl() {
  local globals="--config_file --usi_profile --usi_conf --usi_config --control_port --pid_file --connectivity_log_file
    --connectivity-log --timeout"
  local commands="claim release discover pause resume registered raw status watch send-test doctor"
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' settings='' skip='' arguments=0 word
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $skip in
      -c | --config_file) settings=$word ;;
    esac
    if [[ -n $skip ]]; then
      skip=''
      continue
    fi
    case $word in
      --help | --version | --json | --verbose | -h | -v) ;;
      -?*) skip=$word ;;  # its value follows
      *) if [[ -z $command ]]; then command=$word; else arguments=$((arguments + 1)); fi ;;
    esac
  done

  if [[ -n $skip ]]; then
    case $previous in
      -c | --config_file | --usi_* | --pid_file | --connectivity* | --file | --ca_file)
        mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
      --ca_path) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
      --claimed | --registered) mapfile -t COMPREPLY < <(compgen -W "true false" -- "$current") ;;
    esac
  elif [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_orvelctl_options_of "$command") $globals" -- "$current")
  elif [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
  elif [[ $command == send-test && $arguments -eq 0 ]]; then
    # Without compgen -W, which would execute what it finds in the names.
    while read -r word; do
      if [[ $word == "$current"* ]]; then COMPREPLY+=("$word"); fi
    done < <(_orvelctl_handlers "$settings")
  fi
}

complete -o filenames -F _orvelctl orvelctl
