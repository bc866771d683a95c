# Completion of sonobrikctl(1) for fish.
#
# Clip names can contain anything: blanks, quotes, "$(...)". fish escapes them when it inserts them,
# and nothing here evaluates them.

# Prints the clip names, except those that sonobrikctl would take for an option or a path. Such clips
# can be given by number.
function __sonobrikctl_clips
    sonobrikctl list --names 2>/dev/null </dev/null | string match -r -v '^(-|/|\./|\.\./)'
end

# Succeeds if no command has been typed yet.
function __sonobrikctl_needs_command
    test (count (commandline -opc)) -eq 1
end

# Succeeds if the command is one of the arguments.
function __sonobrikctl_has_command
    set -l words (commandline -opc)
    test (count $words) -gt 1; and contains -- $words[2] $argv
end

complete -c sonobrikctl -f
complete -c sonobrikctl -s h -l help -d 'Show the help'
complete -c sonobrikctl -n __sonobrikctl_needs_command -l version -d 'Show the version'

set -l commands play 'Play a clip or a file' \
    status 'Show what is playing' \
    stop 'Stop playback' \
    list 'List the stored clips' \
    add 'Store files as clips' \
    rename 'Rename a clip' \
    remove 'Remove a clip' \
    check 'Report whether the daemon can play each file' \
    sync 'Re-send the clip list to the on-screen controls' \
    outputs 'List the audio outputs' \
    monitor 'Print playback events and added clips' \
    help 'Show the help of a command'
for i in (seq 1 2 (count $commands))
    complete -c sonobrikctl -n __sonobrikctl_needs_command -a $commands[$i] -d $commands[(math $i + 1)]
    complete -c sonobrikctl -n '__sonobrikctl_has_command help' -a $commands[$i]
end

set -l play '__sonobrikctl_has_command play'
complete -c sonobrikctl -n $play -s v -l volume -x -a '25 50 75 100' -d 'Volume in percent'
complete -c sonobrikctl -n $play -s r -l repeat -x -a 'forever 1 2 3' -d 'Repeat N more times'
complete -c sonobrikctl -n $play -s o -l output -x -a '0 1 2 3 4 5' -d 'Audio output'
complete -c sonobrikctl -n $play -l device -x -d 'Audio device'
complete -c sonobrikctl -n $play -l device-output -x -d 'Output of that device'
complete -c sonobrikctl -n $play -l replace -d 'Stop what is playing first'
complete -c sonobrikctl -n $play -s w -l wait -d 'Wait until the clip ends'
complete -c sonobrikctl -n $play -F -a '(__sonobrikctl_clips)'

set -l status_command '__sonobrikctl_has_command status'
complete -c sonobrikctl -n $status_command -s w -l watch -d 'Keep printing what is playing'

complete -c sonobrikctl -n '__sonobrikctl_has_command list outputs monitor status' -l json -d 'Print JSON'
complete -c sonobrikctl -n '__sonobrikctl_has_command list' -l names -d 'Print only names'

set -l add '__sonobrikctl_has_command add'
complete -c sonobrikctl -n $add -s n -l name -x -d 'Clip name'
complete -c sonobrikctl -n $add -s c -l copy -d 'Copy files to /etc/audioclips first'
complete -c sonobrikctl -n $add -l replace -d 'Replace the recording of a clip'
complete -c sonobrikctl -n '__sonobrikctl_has_command add check' -F

complete -c sonobrikctl -n '__sonobrikctl_has_command remove' -s f -l file -d 'Delete its file too'
complete -c sonobrikctl -n '__sonobrikctl_has_command remove' -s y -l yes -d 'Do not ask for confirmation'
complete -c sonobrikctl -n '__sonobrikctl_has_command remove rename' -a '(__sonobrikctl_clips)'
