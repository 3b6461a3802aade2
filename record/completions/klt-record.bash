# Completion of klt-record for bash: its options, then those of the program.
_klt_record() {
  local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -o | --counters | --mpi | --finish) ((i++)) ;;
      --)
        ((i++))
        break
        ;;
      -*) ;;
      *) break ;;
    esac
  done
  if ((i < COMP_CWORD)) && declare -F _command_offset >/dev/null; then
    _command_offset "$i"
    return
  fi
  case $previous in
    --counters) mapfile -t COMPREPLY < <(compgen -W 'rss faults majfaults ctxsw cputime' -- "$cur") ;;
    --mpi) mapfile -t COMPREPLY < <(compgen -W 'openmpi mpich none' -- "$cur") ;;
    --finish) mapfile -t COMPREPLY < <(compgen -d -- "$cur") ;;
    -o) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
    *)
      if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '-o --raw --sumdata --counters --skip-polls --mpi --quiet
          --finish --check --help --version' -- "$cur")
      else
        mapfile -t COMPREPLY < <(compgen -c -f -- "$cur")
      fi
      ;;
  esac
}
complete -o filenames -F _klt_record klt-record
