# fish completion for kovo

complete -c kovo -f
complete -c kovo -n __fish_use_subcommand -a get -d 'Download URLs into files'
complete -c kovo -n __fish_use_subcommand -a put -d 'Upload a file to a URL'
complete -c kovo -n __fish_use_subcommand -a request -d 'Send one request and print the answer'
complete -c kovo -n __fish_use_subcommand -a cache -d 'Tell the size of the cache, or empty it'
complete -c kovo -n __fish_use_subcommand -a resume -d 'List or remove interrupted downloads'
complete -c kovo -n __fish_use_subcommand -a help -d 'Explain a command, or the exit codes'
complete -c kovo -n __fish_use_subcommand -l version -d 'Print the version'
complete -c kovo -s h -l help -d 'Explain the command'

# get
set -l get '__fish_seen_subcommand_from get'
complete -c kovo -n $get -s o -l output -r -F -d 'Write to FILE, or into the folder FILE'
complete -c kovo -n $get -s J -l content-disposition -d 'Take the name the server proposes'
complete -c kovo -n $get -s d -l dir -x -a '(__fish_complete_directories)' -d 'Write the files into FOLDER'
complete -c kovo -n $get -s i -l input-file -r -F -d 'Read URLs from FILE'
complete -c kovo -n $get -s p -l parallel -x -d 'URLs that are downloaded at once'
complete -c kovo -n $get -l stdout -d 'Write the bytes to standard output'
complete -c kovo -n $get -s r -l range -x -d 'Only the bytes from A to B'
complete -c kovo -n $get -s f -l force -d 'Replace an existing file'
complete -c kovo -n $get -l skip-existing -d 'Pass over URLs whose file exists already'
complete -c kovo -n $get -l sha256 -x -d 'Compare with this checksum'
complete -c kovo -n $get -s c -l continue -d 'Go on with a partial file'
complete -c kovo -n $get -l no-continue -d 'Start afresh instead of resuming'
complete -c kovo -n $get -l chunk-size -x -d 'Bytes per request'
complete -c kovo -n $get -l cache -d 'Keep what is fetched in the cache of ranges'
complete -c kovo -n $get -l no-cache -d 'Leave that cache alone'

# put
set -l put '__fish_seen_subcommand_from put'
complete -c kovo -n $put -F
complete -c kovo -n $put -l s3 -d 'Upload in parts as S3 servers take them'
complete -c kovo -n $put -l sync -d 'Upload in parts to a sync service'
complete -c kovo -n $put -s X -l request -x -a 'PUT POST PATCH' -d 'The verb'
complete -c kovo -n $put -l part-size -x -d 'Bytes per part'

# get and put
set -l transfer '__fish_seen_subcommand_from get put'
complete -c kovo -n $transfer -s n -l connections -x -d 'Requests that run at once'
complete -c kovo -n $transfer -l adaptive -d 'Let the measured throughput choose the connections'
complete -c kovo -n $transfer -l limit-rate -x -d 'Most bytes per second'
complete -c kovo -n $transfer -l retries -x -d 'How often a failed request is sent again'
complete -c kovo -n $transfer -l priority -x -d 'The priority of the transfers'
complete -c kovo -n $transfer -l progress -x -a 'auto always never' -d 'When to show progress'
complete -c kovo -n $transfer -l json -d 'Print one JSON object per event'
complete -c kovo -n $transfer -l trace -r -F -d 'Write a page that shows the transfer'

# request
set -l request '__fish_seen_subcommand_from request'
complete -c kovo -n $request -s X -l request -x -a 'GET HEAD POST PUT PATCH DELETE OPTIONS' -d 'The verb'
complete -c kovo -n $request -s d -l data -x -d 'The body to send'
complete -c kovo -n $request -s i -l include -d 'Print the status and the headers'
complete -c kovo -n $request -l compressed -d 'Ask for a gzip-encoded answer'

# get, put and request
set -l common '__fish_seen_subcommand_from get put request'
complete -c kovo -n $common -s H -l header -x -d 'Send this header with every request'
complete -c kovo -n $common -s A -l user-agent -x -d 'Send TEXT as the name of the program'
complete -c kovo -n $common -l proxy-user -x -d 'Credentials for the proxy'
complete -c kovo -n $common -l timeout -x -d 'Seconds without progress before giving up'
complete -c kovo -n $common -l insecure -d 'Accept any certificate of the server'
complete -c kovo -n $common -s q -l quiet -d 'Show errors only'

complete -c kovo -n '__fish_seen_subcommand_from cache' -a 'info clear'
complete -c kovo -n '__fish_seen_subcommand_from resume' -a 'list clear'
complete -c kovo -n '__fish_seen_subcommand_from resume' -F
complete -c kovo -n '__fish_seen_subcommand_from help' -a 'get put request cache resume help exit-codes'
