#compdef klt-analyze klt-timeline
# Completion of klt-analyze and klt-timeline for zsh.

local -a options=(
  '--window[only this time]:start\:end:'
  '--ticks[times of the window are ticks]'
  '--threads[only these threads]:list:'
  '--help[print help]'
  '--version[print the version]'
)
if [[ $service == klt-timeline ]]; then
  _arguments $options '(-o --output)'{-o,--output}'[the page]:page:_files' ':trace:_files'
else
  _arguments $options \
    '--bins[efficiency in parts of the window]:number:' \
    '--rows[only the first rows of a table]:number:' \
    '--format[form of the output]:form:(text csv json folded)' \
    '--output[write to a file]:file:_files' \
    '--compare[two runs side by side]' \
    '--fail-above[status 5 above this difference]:percent:' \
    ':trace:_files' \
    '*:table:(overview functions callpaths messages message_sizes collectives waits efficiency counters io all)'
fi
