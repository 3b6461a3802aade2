# Completion of klt-analyze and klt-timeline for bash.

_klt_analyze() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} word
  local options='--window --ticks --threads --help --version' tables=''
  if [[ $1 == *klt-timeline ]]; then
    options+=' --output -o'
  else
    options+=' --bins --rows --format --output --compare --fail-above'
    tables='overview functions callpaths messages message_sizes collectives waits efficiency counters io all'
  fi
  COMPREPLY=()
  case $before in
    --format) options='' tables='text csv json folded' ;;
    --window | --threads | --bins | --rows | --fail-above) return ;;
    *) if ((COMP_CWORD == 1)) || [[ $before == --output || $before == -o || $before == --compare ]]; then
      tables=''
    fi ;;
  esac
  for word in $options $tables; do
    [[ $word == "$current"* && ($word != -* || $current == -*) ]] && COMPREPLY+=("$word")
  done
  if [[ $current != -* && -z $tables ]]; then
    compopt -o filenames 2>/dev/null
    while IFS= read -r word; do COMPREPLY+=("$word"); done < <(compgen -f -- "$current")
  fi
}
complete -F _klt_analyze klt-analyze klt-timeline
