# Prints what fish offers at the end of a command line, one offer in a line: offers.fish COMPLETIONS COMMAND_LINE
source $argv[1]
complete -C $argv[2]
