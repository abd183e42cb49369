# bash completion for kdxdispatchcopy

_kdxdispatchcopy() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  # An argument may stand behind "=", which is a word of its own here, as is the ":" of a digest.
  case $word in
    =) word= ;;
    :) before=: ;;
  esac
  [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]}
  COMPREPLY=()
  case $before in
    -t | --t)
      mapfile -t COMPREPLY < <(compgen -W 'md5 sha1 xxhash64be' -- "$word")
      ;;
    -e | --e)
      mapfile -t COMPREPLY < <(compgen -W 'MD5: SHA1: XXHash64: XXHash64BE:' -- "$word")
      compopt -o nospace +o default 2>/dev/null
      ;;
    -a | -f_size | --f_size | -b | --b | :)
      # Numbers and digits, and no file names.
      compopt +o default 2>/dev/null
      ;;
    *)
      # Without a reply files are offered.
      [[ $word != -* ]] ||
        mapfile -t COMPREPLY < <(compgen -W '-b -c -e -f -f_size -j -k -n -nf -nfs -ns -s -t -v' -- "$word")
      ;;
  esac
}

complete -o default -F _kdxdispatchcopy kdxdispatchcopy
