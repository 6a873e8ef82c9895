# Completion of orvfile for fish. Written by script/generate; do not edit.

complete -c orvfile -f
complete -c orvfile -n __fish_use_subcommand -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n __fish_use_subcommand -l version -d 'Print the version and exit'
complete -c orvfile -n __fish_use_subcommand -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n __fish_use_subcommand -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'

complete -c orvfile -n __fish_use_subcommand -a exists -d 'Check whether each PATH is a regular file'
complete -c orvfile -n '__fish_seen_subcommand_from exists' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from exists' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from exists' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from exists' -F

complete -c orvfile -n __fish_use_subcommand -a move -d 'Move regular files, even to another file system'
complete -c orvfile -n '__fish_seen_subcommand_from move' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from move' -s t -l target-directory -d 'The directory that the files go to' -x -f -a '(__fish_complete_directories)'
complete -c orvfile -n '__fish_seen_subcommand_from move' -s n -l no-replace -d 'Fail for a destination that exists'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l preserve -d 'Also keep owner, set-id and sticky bits, times, extended attributes and holes'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l durable -d 'Lose nothing in a power cut (the default)'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l verify -d 'Read each copy back and compare it (the default)'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l no-durable -d 'Do not wait for the disk'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l no-verify -d 'Do not read copies back'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l plain -d 'Use the plain function, RenameFileAcrossFs: flush and compare nothing'
complete -c orvfile -n '__fish_seen_subcommand_from move' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from move' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from move' -F

complete -c orvfile -n __fish_use_subcommand -a copy -d 'Copy regular files'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -s t -l target-directory -d 'The directory that the files go to' -x -f -a '(__fish_complete_directories)'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -s n -l no-replace -d 'Fail for a destination that exists'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -l preserve -d 'Also keep owner, set-id and sticky bits, times, extended attributes and holes'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -l durable -d 'Lose nothing in a power cut (the default)'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -l verify -d 'Read each copy back and compare it (the default)'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -l no-durable -d 'Do not wait for the disk'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -l no-verify -d 'Do not read copies back'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from copy' -F

complete -c orvfile -n __fish_use_subcommand -a mkdir -d 'Make directories and their missing parents'
complete -c orvfile -n '__fish_seen_subcommand_from mkdir' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from mkdir' -s m -l mode -d 'Octal mode, less the file-creation mask (default 777)' -x
complete -c orvfile -n '__fish_seen_subcommand_from mkdir' -l exact-mode -d 'Give PATH exactly this mode, even if it exists; parents are not affected'
complete -c orvfile -n '__fish_seen_subcommand_from mkdir' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from mkdir' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from mkdir' -f -a '(__fish_complete_directories)'

complete -c orvfile -n __fish_use_subcommand -a list -d 'List the regular files of a directory, sorted'
complete -c orvfile -n '__fish_seen_subcommand_from list' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l include -d 'List only names that match; * matches any run of bytes, ? one byte' -x
complete -c orvfile -n '__fish_seen_subcommand_from list' -l exclude -d 'Do not list names that match, even if --include matches them' -x
complete -c orvfile -n '__fish_seen_subcommand_from list' -l older-than -d 'List only files that were last changed before that; units: s m h d w' -x
complete -c orvfile -n '__fish_seen_subcommand_from list' -l larger-than -d 'List only files of more bytes; units of 1024: K M G T' -x
complete -c orvfile -n '__fish_seen_subcommand_from list' -l recursive -d 'Also list files of subdirectories, with their path below DIRECTORY; do not enter links'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l follow -d 'Also list links to regular files'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l sort -d 'The order; time: newest first; size: largest first (default name)' -x -f -a 'name time size'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l reverse -d 'Reverse the order'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l skip -d 'Do not list the first N files' -x
complete -c orvfile -n '__fish_seen_subcommand_from list' -l limit -d 'List at most N files' -x
complete -c orvfile -n '__fish_seen_subcommand_from list' -l long -d 'Also print the size in bytes and the time of the last change'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l full-path -d 'Put DIRECTORY before each name'
complete -c orvfile -n '__fish_seen_subcommand_from list' -s 0 -l null -d 'End each name with a NUL, not a line feed'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l json -d 'Print a JSON array of strings, or with --long of objects'
complete -c orvfile -n '__fish_seen_subcommand_from list' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from list' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from list' -f -a '(__fish_complete_directories)'

complete -c orvfile -n __fish_use_subcommand -a row -d 'Write rows of a text table file to standard output'
complete -c orvfile -n '__fish_seen_subcommand_from row' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from row' -l csv -d 'Read a table of comma-separated values from standard input'
complete -c orvfile -n '__fish_seen_subcommand_from row' -l tsv -d 'Read a table of tab-separated values from standard input'
complete -c orvfile -n '__fish_seen_subcommand_from row' -l delimiter -d 'Read a table of values separated by BYTE from standard input' -x
complete -c orvfile -n '__fish_seen_subcommand_from row' -l encoding -d 'The encoding of standard input, as iconv -l names it (default UTF-8)' -x
complete -c orvfile -n '__fish_seen_subcommand_from row' -l table-end -d 'End the table after the rows'
complete -c orvfile -n '__fish_seen_subcommand_from row' -l raw -d 'Do not escape cells; fail if a cell would break its row'
complete -c orvfile -n '__fish_seen_subcommand_from row' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from row' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'

complete -c orvfile -n __fish_use_subcommand -a page -d 'Publish a text table file as an HTML page'
complete -c orvfile -n '__fish_seen_subcommand_from page' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from page' -l allow-empty -d 'Publish an empty page if TABLE cannot be read'
complete -c orvfile -n '__fish_seen_subcommand_from page' -l watch -d 'Publish again whenever TABLE changes, until SIGINT or SIGTERM'
complete -c orvfile -n '__fish_seen_subcommand_from page' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from page' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from page' -F

complete -c orvfile -n __fish_use_subcommand -a get -d 'Print the values of a name-value file'
complete -c orvfile -n '__fish_seen_subcommand_from get' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from get' -l delimiter -d 'The byte that ends a name (default =)' -x
complete -c orvfile -n '__fish_seen_subcommand_from get' -l comment -d 'The prefix of comment lines; empty for none (default #)' -x
complete -c orvfile -n '__fish_seen_subcommand_from get' -l default -d 'Print this for each NAME that FILE does not contain' -x
complete -c orvfile -n '__fish_seen_subcommand_from get' -l shell -d 'Print NAME=\'VALUE\' for eval in a shell'
complete -c orvfile -n '__fish_seen_subcommand_from get' -l json -d 'Print a JSON object, or with one NAME a JSON string'
complete -c orvfile -n '__fish_seen_subcommand_from get' -l lint -d 'Report lines that look wrong instead of printing values'
complete -c orvfile -n '__fish_seen_subcommand_from get' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from get' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from get' -F

complete -c orvfile -n __fish_use_subcommand -a set -d 'Change values in a name-value file, or add them'
complete -c orvfile -n '__fish_seen_subcommand_from set' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from set' -l delimiter -d 'The byte that ends a name (default =)' -x
complete -c orvfile -n '__fish_seen_subcommand_from set' -l comment -d 'The prefix of comment lines; empty for none (default #)' -x
complete -c orvfile -n '__fish_seen_subcommand_from set' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from set' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from set' -F

complete -c orvfile -n __fish_use_subcommand -a unset -d 'Remove names with their values from a name-value file'
complete -c orvfile -n '__fish_seen_subcommand_from unset' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from unset' -l delimiter -d 'The byte that ends a name (default =)' -x
complete -c orvfile -n '__fish_seen_subcommand_from unset' -l comment -d 'The prefix of comment lines; empty for none (default #)' -x
complete -c orvfile -n '__fish_seen_subcommand_from unset' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from unset' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from unset' -F

complete -c orvfile -n __fish_use_subcommand -a explain -d 'Explain lines of the log'
complete -c orvfile -n '__fish_seen_subcommand_from explain' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from explain' -l json -d 'Print a JSON object for each line'
complete -c orvfile -n '__fish_seen_subcommand_from explain' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from explain' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'

complete -c orvfile -n __fish_use_subcommand -a completion -d 'Print the script that completes command lines'
complete -c orvfile -n '__fish_seen_subcommand_from completion' -s h -l help -d 'Print this help message and exit'
complete -c orvfile -n '__fish_seen_subcommand_from completion' -s q -l quiet -d 'Suppress notes, warnings and progress; still report failures'
complete -c orvfile -n '__fish_seen_subcommand_from completion' -l syslog -d 'Write all messages but those of wrong usage to the system\'s log'
complete -c orvfile -n '__fish_seen_subcommand_from completion' -f -a 'bash zsh fish'
