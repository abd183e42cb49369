# Prints what zsh offers at the end of a command line, one offer in a line: offers.zsh COMPLETIONS COMMAND_LINE
# zsh completes at a terminal alone: the line is typed to a second shell that has one, and that writes every match down.
zmodload zsh/zpty
offers=$(mktemp)

write_matches_down='
PS1=; unsetopt zle_bracketed_paste 2>/dev/null; unset zle_bracketed_paste
fpath=('${(q)1:h}' $fpath)
autoload -Uz compinit && compinit -u -D
compadd() {
  builtin compadd "$@"
  local status_of_it=$?
  [[ "${(@M)@:#-[AOD]}" ]] && return $status_of_it
  local -a matches
  builtin compadd -O matches "$@"
  (( $#matches )) && print -rl -- $matches >> '${(q)offers}'
  return $status_of_it
}
finished() { _main_complete; print -r -- end-of-offers >> '${(q)offers}' }
zle -C finished list-choices finished
bindkey "^I" finished
print ready-to-"complete"
'
zpty shell "TERM=dumb zsh -f -i"
zpty -w shell "$write_matches_down"
zpty -r -m shell line '*ready-to-complete*'
zpty -w -n shell "$2"$'\t'
for (( tenths = 0; tenths < 600; ++tenths )); do
  grep -q end-of-offers $offers && break
  sleep 0.1
done
zpty -d shell
grep -v end-of-offers $offers | sort -u
rm -f $offers
