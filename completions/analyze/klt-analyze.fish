# Completion of klt-analyze and klt-timeline for fish.
for program in klt-analyze klt-timeline
    complete -c $program -l window -x -d 'Only this time'
    complete -c $program -l ticks -d 'Times of the window are ticks'
    complete -c $program -l threads -x -d 'Only these threads'
    complete -c $program -l help -d 'Print help'
    complete -c $program -l version -d 'Print the version'
end
complete -c klt-timeline -s o -l output -r -d 'The page'
complete -c klt-analyze -l output -r -d 'Write to a file'
complete -c klt-analyze -l bins -x -d 'Efficiency in parts of the window'
complete -c klt-analyze -l rows -x -d 'Only the first rows of a table'
complete -c klt-analyze -l format -x -a 'text csv json folded' -d 'Form of the output'
complete -c klt-analyze -l compare -d 'Two runs side by side'
complete -c klt-analyze -l fail-above -x -d 'Status 5 above this difference'
complete -c klt-analyze -n 'test (count (commandline -opc)) -gt 1' -a 'overview functions callpaths messages message_sizes collectives waits efficiency counters io all'
