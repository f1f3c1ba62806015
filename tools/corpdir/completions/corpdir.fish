# Completion of corpdir(1) for fish.

# Succeeds when the command on the line is one of the arguments; without arguments, when there is no
# command yet.
function __corpdir_command
    set -l words (commandline -opc)
    set -e words[1]
    while set -q words[1]
        switch $words[1]
            case --config
                # Its value is not a command.
                set -q words[2]; and set -e words[2]
            case '-*'
            case '*'
                contains -- $words[1] $argv
                return
        end
        set -e words[1]
    end
    not set -q argv[1]
end

# Both names of each suite.
function __corpdir_suites
    corpdir ciphers 2>/dev/null | awk 'NR > 1 { print $(NF - 1); print $NF }' | sort -u
end

# The word typed so far, without a leading option as in "--log-dir=/v".
function __corpdir_typed
    commandline -ct | string replace -r -- '^--[a-z-]+=' ''
end

function __corpdir_directories
    __fish_complete_directories (__corpdir_typed)
end

function __corpdir_programs
    complete -C (__corpdir_typed)
end

complete -c corpdir -f
complete -c corpdir -s h -l help -d 'Print the help and exit'
complete -c corpdir -l config -rF -d 'Read options from this file'
complete -c corpdir -l no-config -d 'Read no settings file'

set -l none __corpdir_command
complete -c corpdir -n $none -s V -l version -d 'Print versions and exit'
complete -c corpdir -n $none -a fetch -d 'Fetch the directory file once'
complete -c corpdir -n $none -a watch -d 'Fetch each new directory file'
complete -c corpdir -n $none -a check -d 'Test these options'
complete -c corpdir -n $none -a status -d 'Show what is known about a local file'
complete -c corpdir -n $none -a ciphers -d 'List the cipher suites'

set -l request '__corpdir_command fetch watch check'
complete -c corpdir -n $request -l servers -x -d 'Servers, separated by ;'
complete -c corpdir -n $request -l port -x -d 'Port of all servers'
complete -c corpdir -n $request -l local-ip -x -d 'Local address to connect from'
complete -c corpdir -n $request -l user -x -d 'User name'
complete -c corpdir -n $request -l password-file -rF -d 'File with the password'
complete -c corpdir -n $request -l version-file -x -d 'Version file on the server'
complete -c corpdir -n "$request status" -l directory-file -x -d 'Directory file on the server'
complete -c corpdir -n "$request status" -l output-dir -xa '(__corpdir_directories)' -d 'Directory of the local files'
complete -c corpdir -n $request -l version-name -x -d 'Local name of the version file'
complete -c corpdir -n "$request status" -l directory-name -x -d 'Local name of the directory file'
complete -c corpdir -n $request -l ca -rFa system -d 'Authorities to trust'
complete -c corpdir -n $request -l verify-name -x -d 'Name that every certificate must have'
complete -c corpdir -n $request -l no-verify -d 'Accept any certificate'
complete -c corpdir -n $request -l plain -d 'FTP without TLS'
complete -c corpdir -n $request -l ciphers -xa 'compatible modern service (__fish_append , (__corpdir_suites))' -d 'Cipher suites to offer'
complete -c corpdir -n $request -l connect-timeout -x -d 'Time limit for one connection'
complete -c corpdir -n $request -l max-size -x -d 'Largest file to accept'
complete -c corpdir -n $request -l log-dir -xa '(__corpdir_directories)' -d 'Write a log to this directory'
complete -c corpdir -n $request -l log-level -xa '0 1 2' -d 'What to log'
complete -c corpdir -n $request -l log-size -x -d 'Size at which a log file is rotated'
complete -c corpdir -n $request -l log-files -x -d 'Rotated log files to keep'
complete -c corpdir -n $request -l quiet -d 'Print failures only'
complete -c corpdir -n '__corpdir_command status' -l max-age -x -d 'Longest time since the last successful check'
complete -c corpdir -n "$request status ciphers" -l json -d 'Print JSON'

complete -c corpdir -n '__corpdir_command fetch check' -l timeout -x -d 'Longest time without progress'
complete -c corpdir -n '__corpdir_command fetch check' -l max-time -x -d 'Time limit for the whole command'
complete -c corpdir -n '__corpdir_command fetch' -l if-changed -d 'Fetch the directory file only if something has changed'
complete -c corpdir -n '__corpdir_command fetch' -l no-progress -d 'Show no progress'
complete -c corpdir -n '__corpdir_command watch' -l retry -x -d 'Time until the next try'
complete -c corpdir -n '__corpdir_command watch' -l splay -x -d 'Wait a random time first, at most this'
complete -c corpdir -n '__corpdir_command watch' -l on-failure -xa '(__corpdir_programs)' -d 'Command to run when a check failed'
complete -c corpdir -n '__corpdir_command watch' -l exec-timeout -x -d 'Time limit for one run of either command'
complete -c corpdir -n '__corpdir_command watch' -l exec -xa '(__corpdir_programs)' -d 'Command to run for each new file'
