# Prints what bash offers at the end of a command line, one offer in a line: offers.bash COMPLETIONS COMMAND_LINE
# A shell at a terminal would say the same among much else. So the function of the completions is called as bash calls it,
# and files are added where it gives no reply and leaves them switched on.
set -euo pipefail

files=off
compopt() {
  while [ $# -gt 0 ]; do
    case "$1 $2" in
      '-o default') files=on ;;
      '+o default') files=off ;;
    esac
    shift 2
  done
}

# shellcheck source=completions/kdxdispatchcopy.bash
. "$1"

# Words as the line editor takes them apart: "=" and ":" are words of their own, and behind a blank is an empty one.
line=${2//=/ = }
line=${line//:/ : }
read -ra COMP_WORDS <<<"$line"
case $2 in *' ') COMP_WORDS+=('') ;; esac
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))

program=${2%% *}
read -ra registered <<<"$(complete -p "$program")"
function=
for ((index = 0; index < ${#registered[@]}; ++index)); do
  case ${registered[index]} in
    -F) function=${registered[index + 1]} ;;
    -o) compopt -o "${registered[index + 1]}" ;;
  esac
done

COMPREPLY=()
"$function" "$program" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
if [ ${#COMPREPLY[@]} -gt 0 ]; then
  printf '%s\n' "${COMPREPLY[@]}"
elif [ $files = on ]; then
  case ${COMP_WORDS[COMP_CWORD]} in
    = | :) compgen -f ;;
    *) compgen -f -- "${COMP_WORDS[COMP_CWORD]}" || true ;;
  esac
fi
