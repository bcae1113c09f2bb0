# SPDX-License-Identifier: MIT
# Completion of ipplay for fish. Commands and options come from the program's own help.

function __ipplay_command
    for word in (commandline -opc)[2..-1]
        contains -- $word devices resolve play measure lineup gather serve demo; and echo $word; and return
    end
end

function __ipplay_options
    set -l program (commandline -opc)[1]
    $program (__ipplay_command) --help 2>/dev/null | string match -r -a -- '--[a-z][a-z-]*' | sort -u
end

function __ipplay_commands
    set -l program (commandline -opc)[1]
    $program --help 2>/dev/null | string replace -r -f '^  ([a-z]+) +([A-Z].*)$' '$1\t$2'
end

complete -c ipplay -n 'test -z (__ipplay_command)' -f -a '(__ipplay_commands)'
complete -c ipplay -n 'string match -q -- "-*" (commandline -ct)' -f -a '(__ipplay_options)'
complete -c ipplay -l device -x -a '(ls /sys/class/net 2>/dev/null)'
complete -c ipplay -l late -x -a 'bounded catch-up shift drop'
complete -c ipplay -l holes -x -a 'kept closed'
complete -c ipplay -l timing -x -a 'pcr capture'
complete -c ipplay -l priority -x -a 'idle below-normal normal above-normal highest time-critical'
complete -c ipplay -l dont-fragment -x -a 'on off'
complete -c ipplay -l loop -x -a forever
