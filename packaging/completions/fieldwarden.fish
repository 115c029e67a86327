# SPDX-License-Identifier: Apache-2.0
# What fish offers behind "fieldwarden" on Tab: subcommands, options, and the values that options take.

# Whether the words so far name exactly this subcommand, as in "__fieldwarden_is shim set".
function __fieldwarden_is
    set -l command
    set -l is_value no
    for word in (commandline -opc)[2..]
        if test $is_value = yes
            set is_value no
            continue
        end
        switch $word
            case --lock --time-scale --data --system --for --since --out --plot --frequency --at --wait
                set is_value yes
            case '-*'
            case '*'
                if test (count $command) -eq 0; or contains -- "$command" shim log lock at dump
                    set -a command $word
                end
        end
    end
    test "$command" = "$argv"
end

complete -c fieldwarden -f
complete -c fieldwarden -l help -s h -d 'Print the help'
complete -c fieldwarden -n __fieldwarden_is -l version -d 'Print the version'
complete -c fieldwarden -n __fieldwarden_is -a run -d 'Open the library and print what it says'
complete -c fieldwarden -n __fieldwarden_is -a registers -d 'All registers of the lock sequencer'
complete -c fieldwarden -n __fieldwarden_is -a dump -d 'Keep the FID or FFT, or what the boards know'
complete -c fieldwarden -n __fieldwarden_is -a lock -d 'A closer look at the lock'
complete -c fieldwarden -n __fieldwarden_is -a shim -d 'Gradients and currents of the shim coils'
complete -c fieldwarden -n __fieldwarden_is -a at -d 'The probe gas of the adjustable temperature'
complete -c fieldwarden -n __fieldwarden_is -a log -d 'What the data logger has kept'
complete -c fieldwarden -n __fieldwarden_is -a temperature -d 'The temperatures of magnet and probe'
complete -c fieldwarden -n __fieldwarden_is -a plot -d 'Draw a dump of the lock signal'

complete -c fieldwarden -n '__fieldwarden_is shim' -a list -d 'All gradients that the shim system has'
complete -c fieldwarden -n '__fieldwarden_is shim' -a get -d 'Gradients by name'
complete -c fieldwarden -n '__fieldwarden_is shim' -a set -d 'Set gradients, all at once'
complete -c fieldwarden -n '__fieldwarden_is shim' -a current -d 'Show or set one current'
complete -c fieldwarden -n '__fieldwarden_is shim' -a load -d 'Set all gradients from a shim file'
complete -c fieldwarden -n '__fieldwarden_is shim' -a save -d 'Write all gradients to a shim file'
complete -c fieldwarden -n '__fieldwarden_is shim' -a relations -d 'How gradients and coils depend on each other'
complete -c fieldwarden -n '__fieldwarden_is shim' -a system -d 'Choose the shim system, also for later runs'
complete -c fieldwarden -n '__fieldwarden_is shim load' -F
complete -c fieldwarden -n '__fieldwarden_is shim save' -F
complete -c fieldwarden -n '__fieldwarden_is shim system' -a 8 -d wmxs1a
complete -c fieldwarden -n '__fieldwarden_is shim system' -a 9 -d wmxs1b
complete -c fieldwarden -n '__fieldwarden_is shim system' -a 10 -d wmxs1c
complete -c fieldwarden -n '__fieldwarden_is shim system' -a 11 -d wmxs2a

complete -c fieldwarden -n '__fieldwarden_is log' -a list -d 'The channels with their newest values'
complete -c fieldwarden -n '__fieldwarden_is log' -a show -d 'The samples of a channel, oldest first'
complete -c fieldwarden -n '__fieldwarden_is log' -a plot -d 'Draw channels over time'
complete -c fieldwarden -n '__fieldwarden_is log plot' -l since -x -d 'From then on'
complete -c fieldwarden -n '__fieldwarden_is log plot' -l out -r -F -d 'The picture'
complete -c fieldwarden -n '__fieldwarden_is log list' -l all -d 'Also the channels for service'
complete -c fieldwarden -n '__fieldwarden_is log show' -l since -x -d 'From then on'
complete -c fieldwarden -n '__fieldwarden_is log show' -l csv -d 'As CSV with a header line'

complete -c fieldwarden -n '__fieldwarden_is lock' -a scan -d 'Look for signals over the whole range'
complete -c fieldwarden -n '__fieldwarden_is lock scan' -l plot -r -F -d 'A picture, too'
complete -c fieldwarden -n '__fieldwarden_is dump' -a fid -d 'The lock signal in time'
complete -c fieldwarden -n '__fieldwarden_is dump' -a fft -d 'The spectrum of the lock signal'
complete -c fieldwarden -n '__fieldwarden_is dump' -a canopen -d 'All objects of the boards'
complete -c fieldwarden -n '__fieldwarden_is dump fid' -F
complete -c fieldwarden -n '__fieldwarden_is dump fft' -F
complete -c fieldwarden -n '__fieldwarden_is dump canopen' -a '(__fish_complete_directories)'
for command in run dump 'dump fid' 'dump fft'
    complete -c fieldwarden -n "__fieldwarden_is $command" -l frequency -x -d 'The magnet frequency in MHz'
end

complete -c fieldwarden -n '__fieldwarden_is plot' -F
complete -c fieldwarden -n '__fieldwarden_is plot' -l out -r -F -d 'The picture'
complete -c fieldwarden -n '__fieldwarden_is plot' -l fid -d 'Points in time'
complete -c fieldwarden -n '__fieldwarden_is plot' -l fft -d 'Points in frequency'
complete -c fieldwarden -n '__fieldwarden_is plot' -l json -d 'As JSON, for programs'
complete -c fieldwarden -n '__fieldwarden_is plot' -l quiet -s q -d 'The bare values'

for command in run registers dump 'dump fid' 'dump fft' 'dump canopen' temperature 'lock scan' 'shim list' 'shim get' \
    'shim set' 'shim current' 'shim load' 'shim save' 'shim relations' 'shim system' 'at exchange' 'at flows'
    complete -c fieldwarden -n "__fieldwarden_is $command" -l lock -x -a 'mock real' -d 'Which lock'
    complete -c fieldwarden -n "__fieldwarden_is $command" -l time-scale -x -d 'Simulated seconds in a real second'
    if test $command != 'shim system'
        complete -c fieldwarden -n "__fieldwarden_is $command" -l system -x -a '8 9 10 11' -d 'The shim system'
    end
end
for command in run registers dump 'dump fid' 'dump fft' 'dump canopen' temperature 'lock scan' 'shim list' 'shim get' \
    'shim set' 'shim current' 'shim load' 'shim save' 'shim relations' 'shim system' 'at exchange' 'at flows' \
    'log list' 'log show' 'log plot'
    complete -c fieldwarden -n "__fieldwarden_is $command" -l simulate -d 'On the simulated instrument'
    complete -c fieldwarden -n "__fieldwarden_is $command" -l data -x -a '(__fish_complete_directories)' \
        -d 'Folder of the instrument'
    complete -c fieldwarden -n "__fieldwarden_is $command" -l json -d 'As JSON, for programs'
    if test $command != run
        complete -c fieldwarden -n "__fieldwarden_is $command" -l quiet -s q -d 'The bare values'
    end
end
complete -c fieldwarden -n '__fieldwarden_is run' -l for -x -d 'Close after so many seconds'
complete -c fieldwarden -n '__fieldwarden_is run' -l at -x -d 'Bring the probe to this temperature'
complete -c fieldwarden -n '__fieldwarden_is run' -l until-stable -d 'Close once the probe is stable'
complete -c fieldwarden -n '__fieldwarden_is run' -l cold -d 'Begin with all parts at room temperature'

complete -c fieldwarden -n '__fieldwarden_is at' -a exchange -d 'Take the gas down and bring it back'
complete -c fieldwarden -n '__fieldwarden_is at' -a flows -d 'The gas flows that can be set'
complete -c fieldwarden -n '__fieldwarden_is at exchange' -l wait -x -d 'Real time for the exchange'
complete -c fieldwarden -n '__fieldwarden_is at exchange' -l no-sample -d 'No sample is in the magnet afterwards'
