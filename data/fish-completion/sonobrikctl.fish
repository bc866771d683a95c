# Completion of sonobrikctl(1) for fish.
#
# Clip names can contain anything: blanks, quotes, "$(...)". fish escapes them when it inserts them,
# and nothing here evaluates them.

# Prints the words before the cursor without --host and its value. With "machine", prints that value
# instead, of the last --host.
function __sonobrikctl_words
    set -l words (commandline -opc)
    set -l rest
    set -l machine
    set -l i 1
    while test $i -le (count $words)
        switch $words[$i]
            case --host -H
                set i (math $i + 1)
                test $i -le (count $words); and set machine $words[$i]
            case '--host=*'
                set machine (string replace -- --host= '' $words[$i])
            case '-H*'
                set machine (string replace -- -H '' $words[$i])
            case '*'
                set -a rest $words[$i]
        end
        set i (math $i + 1)
    end
    if test "$argv" = machine
        printf '%s\n' $machine
    else
        printf '%s\n' $rest
    end
end

# Prints the clip names of this machine, or of the machine of --host. ssh must not ask for a password
# in the middle of a command line, and a machine that is switched off must not block the shell.
function __sonobrikctl_names
    set -l machine (__sonobrikctl_words machine)
    if test -z "$machine"
        sonobrikctl list --names
    else if not string match -q -- '-*' $machine
        SSH_ASKPASS_REQUIRE=force SSH_ASKPASS=false timeout 5 sonobrikctl --host $machine list --names
    end 2>/dev/null </dev/null
end

# Prints the clip names, except those that sonobrikctl would take for an option or a path. Such clips
# can be given by number.
function __sonobrikctl_clips
    __sonobrikctl_names | string match -r -v '^(-|/|\./|\.\./)'
end

# Succeeds if no command has been typed yet.
function __sonobrikctl_needs_command
    test (count (__sonobrikctl_words)) -eq 1
end

# Succeeds if the command is one of the arguments.
function __sonobrikctl_has_command
    set -l words (__sonobrikctl_words)
    test (count $words) -gt 1; and contains -- $words[2] $argv
end

# Succeeds if only the command and options have been typed. The values of options do not count.
function __sonobrikctl_needs_operand
    set -l words (__sonobrikctl_words)
    set -l i 3
    while test $i -le (count $words)
        switch $words[$i]
            case --volume --repeat --output --device --device-output -v -r -o
                set i (math $i + 1)
            case '-*'
            case '*'
                return 1
        end
        set i (math $i + 1)
    end
end

# Succeeds without --host. With it, the files are those of the other machine.
function __sonobrikctl_is_here
    test -z (__sonobrikctl_words machine | string collect)
end

# Succeeds if "play" can only be given a file: the word is a path, or no clip name begins with it.
function __sonobrikctl_needs_file
    __sonobrikctl_is_here; and __sonobrikctl_needs_operand; or return 1
    set -l typed (commandline -ct | string replace -r '^["\']' '' | string replace -ra '\\\\(.)' '$1')
    string match -qr '^[/.~]' -- "$typed"
    or not __sonobrikctl_clips | string match -qir -- ^(string escape --style=regex -- "$typed")
end

complete -c sonobrikctl -f
complete -c sonobrikctl -s h -l help -d 'Show the help'
complete -c sonobrikctl -s H -l host -x -a '(__fish_complete_user_at_hosts)' -d 'Use another machine, over ssh'
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
    complete -c sonobrikctl -n '__sonobrikctl_has_command help; and __sonobrikctl_needs_operand' \
        -a $commands[$i] -d $commands[(math $i + 1)]
end

set -l play '__sonobrikctl_has_command play'
complete -c sonobrikctl -n $play -s v -l volume -x -a '25 50 75 100' -d 'Volume in percent'
complete -c sonobrikctl -n $play -s r -l repeat -x -a 'forever 1 2 3' -d 'Repeat N more times'
complete -c sonobrikctl -n $play -s o -l output -x -a '0 1 2 3 4 5' -d 'Audio output'
complete -c sonobrikctl -n $play -l device -x -d 'Audio device'
complete -c sonobrikctl -n $play -l device-output -x -d 'Output of that device'
complete -c sonobrikctl -n $play -l replace -d 'Stop what is playing first'
complete -c sonobrikctl -n $play -s w -l wait -d 'Wait until the clip ends'
complete -c sonobrikctl -n "$play; and __sonobrikctl_needs_operand" -a '(__sonobrikctl_clips)'
complete -c sonobrikctl -n "$play; and __sonobrikctl_needs_file" -F

set -l status_command '__sonobrikctl_has_command status'
complete -c sonobrikctl -n $status_command -s w -l watch -d 'Keep printing what is playing'

complete -c sonobrikctl -n '__sonobrikctl_has_command list outputs monitor status' -l json -d 'Print JSON'
complete -c sonobrikctl -n '__sonobrikctl_has_command list' -l names -d 'Print only names'

set -l add '__sonobrikctl_has_command add'
complete -c sonobrikctl -n $add -s n -l name -x -d 'Clip name'
complete -c sonobrikctl -n $add -s c -l copy -d 'Copy files to /etc/audioclips first'
complete -c sonobrikctl -n $add -l replace -d 'Replace the recording of a clip'
complete -c sonobrikctl -n '__sonobrikctl_has_command add check; and __sonobrikctl_is_here' -F

complete -c sonobrikctl -n '__sonobrikctl_has_command remove' -s f -l file -d 'Delete its file too'
complete -c sonobrikctl -n '__sonobrikctl_has_command remove' -s y -l yes -d 'Do not ask for confirmation'
complete -c sonobrikctl -n '__sonobrikctl_has_command remove rename; and __sonobrikctl_needs_operand' \
    -a '(__sonobrikctl_clips)'
