# bash completion for kdxoffload

_kdxoffload() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  # An argument may stand behind "=", which is a word of its own here.
  [ "$word" != = ] || word=
  [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]}
  COMPREPLY=()
  case $before in
    -t)
      mapfile -t COMPREPLY < <(compgen -W 'md5 sha1 xxhash64be' -- "$word")
      ;;
    --jobs | --stall | --exclude)
      # Numbers and patterns, and no file names.
      compopt +o default 2>/dev/null
      ;;
    *)
      # Without a reply files are offered.
      if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '-t --catalogue --checksums --exclude --help --jobs --json --no-mhl
          --no-read-back --partial --quiet --recheck --replace --stall --version' -- "$word")
      elif [ "$COMP_CWORD" = 1 ] && [ -n "$word" ]; then
        mapfile -t COMPREPLY < <(compgen -W 'history status' -- "$word")
      fi
      ;;
  esac
}

complete -o default -F _kdxoffload kdxoffload
