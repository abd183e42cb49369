# fish completion for kdxdispatchcopy

complete -c kdxdispatchcopy -o b -x -d 'ignored, with its argument'
complete -c kdxdispatchcopy -o c -d ignored
complete -c kdxdispatchcopy -o e -x -a 'MD5: SHA1: XXHash64: XXHash64BE:' -d 'compare with a digest from elsewhere'
complete -c kdxdispatchcopy -o f -d 'replace existing files'
complete -c kdxdispatchcopy -o f_size -x -d 'size that the source must have'
complete -c kdxdispatchcopy -o j -d 'run without a destination'
complete -c kdxdispatchcopy -o k -d 'read nothing back, compare sizes'
complete -c kdxdispatchcopy -o n -d 'neither read back nor digest, compare sizes'
complete -c kdxdispatchcopy -o nf -d 'do not flush'
complete -c kdxdispatchcopy -o nfs -d 'do not look at the sizes of files on disk'
complete -c kdxdispatchcopy -o ns -d 'do not read the source back, nor anything of a sequence'
complete -c kdxdispatchcopy -o s -d 'the source that follows is a sequence'
complete -c kdxdispatchcopy -o t -x -a 'md5 sha1 xxhash64be' -d 'digest algorithm'
complete -c kdxdispatchcopy -o v -d 'print progress and speeds'

# Another name of -f_size, which is not offered but has no file behind it either.
complete -c kdxdispatchcopy -n 'string match -q -- -a (commandline -opc)[-1]' -f
