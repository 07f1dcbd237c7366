# bash completion for quibvitalscope

_quibvitalscope_pids() {
  local folder="${XDG_RUNTIME_DIR:-}/quibvitalscope" socket process
  for socket in "$folder"/*.sock; do
    process=$(basename "$socket" .sock)
    [ -S "$socket" ] && [ -d "/proc/$process" ] && echo "$process"  # one that was killed leaves its socket
  done
}

_quibvitalscope_report_pids() {
  local folder
  for folder in "$HOME"/Library/Logs/quibapp/Diagnostic/*/; do
    [ -d "$folder" ] && basename "$folder"
  done
}

_quibvitalscope_files() {
  local root="$HOME/Library/Logs/quibapp/Diagnostic"
  [ -d "$root" ] && (cd "$root" && compgen -f -X '!*.hang' -- "$1"; compgen -d -S / -- "$1")
}

_quibvitalscope_stack_files() {
  local root="$HOME/Library/Logs/quibapp/Diagnostic"
  [ -d "$root" ] && (cd "$root" && compgen -f -X '!*.mmap' -- "$1"; compgen -d -S / -- "$1")
}

# Where the program of "run" begins: behind "--", or the first word that is neither an option nor its value.
_quibvitalscope_program_word() {
  local i
  for ((i = 2; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --) echo $((i + 1)); return ;;
      --email | --bundle-id | --version | --upload-to | --upload-command) i=$((i + 1)) ;;
      -*) ;;
      *) echo "$i"; return ;;
    esac
  done
}

_quibvitalscope_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2"); }

_quibvitalscope_run() {
  local current=$1 previous=$2 program
  program=$(_quibvitalscope_program_word)
  if [ -z "$program" ]; then
    case $previous,$current in
      --upload-to,*) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
      --email,* | --bundle-id,* | --version,* | --upload-command,* | *,-*) ;;
      *) program=$COMP_CWORD ;;
    esac
  fi
  if [ -n "$program" ]; then
    if declare -F _command_offset >/dev/null; then
      _command_offset "$program"
    elif [ "$COMP_CWORD" = "$program" ]; then
      mapfile -t COMPREPLY < <(compgen -c -- "$current")
    else
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
  elif [[ $current = -* ]]; then
    _quibvitalscope_words "--no-log --watch-run-loop --email --bundle-id --version --upload-to --upload-command --help --" "$current"
  fi
}

_quibvitalscope() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  if [ "$COMP_CWORD" = 1 ]; then
    _quibvitalscope_words "run post dashboard upload open leak-check reports show stacks watch profile doctor --help --version" "$current"
    return
  fi
  case ${COMP_WORDS[1]} in
    run) _quibvitalscope_run "$current" "$previous" ;;
    post)
      case $COMP_CWORD in
        2) _quibvitalscope_words "$(_quibvitalscope_pids) --help" "$current" ;;
        3) _quibvitalscope_words "performance_dashboard user_method_time_profile user_leaks_detect Noti_LogOut
             Noti_Login_FB_Login_Finished Noti_KXProcessWillTerminate QBV_CMD_CONF_LEAVE_COMPLETE
             quib_user_report_performance_log open_diagnostic_folder qbcrash_report_panel_send_button_action
             quibvitalscope_watch_run_loop" "$current" ;;
      esac ;;
    dashboard) _quibvitalscope_words "$(_quibvitalscope_pids) --help" "$current" ;;
    upload | leak-check) _quibvitalscope_words "$(_quibvitalscope_pids) --help" "$current" ;;
    open) _quibvitalscope_words "$(_quibvitalscope_pids) --choose --help" "$current" ;;
    reports)
      if [ "$previous" = --pid ]; then
        _quibvitalscope_words "$(_quibvitalscope_report_pids)" "$current"
      else
        _quibvitalscope_words "--pid --json --help" "$current"
      fi ;;
    show)
      case $previous,$current in
        --color,*) _quibvitalscope_words "auto always never" "$current" ;;
        *,-*) _quibvitalscope_words "--json --color --help" "$current" ;;
        *)
          mapfile -t COMPREPLY < <(compgen -f -- "$current"; _quibvitalscope_files "$current")
          compopt -o filenames 2>/dev/null ;;
      esac ;;
    stacks)
      case $previous,$current in
        --color,*) _quibvitalscope_words "auto always never" "$current" ;;
        --by,*) _quibvitalscope_words "bytes count" "$current" ;;
        --report,*)
          mapfile -t COMPREPLY < <(compgen -f -- "$current"; _quibvitalscope_files "$current")
          compopt -o filenames 2>/dev/null ;;
        *,-*) _quibvitalscope_words "--report --by --top --json --folded --color --help" "$current" ;;
        *)
          mapfile -t COMPREPLY < <(compgen -f -- "$current"; _quibvitalscope_stack_files "$current")
          compopt -o filenames 2>/dev/null ;;
      esac ;;
    watch)
      case $previous,$current in
        --interval,*) ;;
        *,-*) _quibvitalscope_words "--interval --once --help" "$current" ;;
        *) _quibvitalscope_words "$(_quibvitalscope_pids)" "$current" ;;
      esac ;;
    profile)
      case $previous,$current in
        --format,*) _quibvitalscope_words "tree folded speedscope" "$current" ;;
        --seconds,*) ;;
        -o,* | --output,*)
          mapfile -t COMPREPLY < <(compgen -f -- "$current")
          compopt -o filenames 2>/dev/null ;;
        *,-*) _quibvitalscope_words "--seconds --format --output --help" "$current" ;;
        *) _quibvitalscope_words "$(_quibvitalscope_pids)" "$current" ;;
      esac ;;
    doctor)
      case $previous in
        --pid) _quibvitalscope_words "$(_quibvitalscope_pids)" "$current" ;;
        *) _quibvitalscope_words "--pid --json --help" "$current" ;;
      esac ;;
  esac
}

complete -F _quibvitalscope quibvitalscope
