# shellcheck shell=bash disable=SC2154 # what is not assigned here comes from the program's tables
# bash completion for ormel(8). Names of profiles are chosen by others: they are shown, and never
# expanded or inserted.

# Of the program's own tables: each type with its number and the section of its profiles; the
# interfaces of a server; for each option a line of name, letter, argument and the types that have
# it.
%completion

# The row of an option as it is written; none for anything else.
_ormel_row() {
  local row
  while IFS= read -r row; do
    if [[ ($1 == --* && $row == "${1#--};"*) || ($1 == -[!-] && $row == *";${1#-};"*) ]]; then
      printf '%s' "$row"
      return
    fi
  done <<<"$_ormel_options"
}

# The row of the type that is chosen before the word at hand.
_ormel_chosen_type() {
  local i value row name number
  for ((i = 1; i < COMP_CWORD; ++i)); do
    [[ ${COMP_WORDS[i]} == -T || ${COMP_WORDS[i]} == --type ]] || continue
    value=${COMP_WORDS[i + 1]-}
    [[ $value != = ]] || value=${COMP_WORDS[i + 2]-}
    for row in $_ormel_types; do
      IFS=';' read -r name number _ <<<"$row"
      if [[ ${value^^} == "$name" || $value == "$number" ]]; then
        printf '%s' "$row"
        return
      fi
    done
  done
}

# Those candidates that begin as the word at hand does.
_ormel_offer() {
  local candidate
  for candidate; do
    if [[ $candidate == "$cur"* ]]; then COMPREPLY+=("$candidate"); fi
  done
}

# First the type, then an action, then what the type has and is not there yet.
_ormel_offer_options() {
  local word name letter argument types wanted=action
  [[ $type ]] || wanted='type'
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    IFS=';' read -r _ letter _ <<<"$(_ormel_row "$word")"
    [[ ! $type || ! $letter || $letter == T ]] || wanted=setting
  done
  while IFS=';' read -r name letter argument types; do
    case $wanted:$letter in
      type:T) ;;
      action:[!T]) [[ $types == *" $type "* ]] || continue ;;
      setting:) [[ $types == *" $type "* && " ${COMP_WORDS[*]} " != *" --$name "* ]] || continue ;;
      *) continue ;;
    esac
    _ormel_offer "--$name${argument:+=}"
  done <<<"$_ormel_options"
  [[ ${COMPREPLY[*]-} != *= ]] || compopt -o nospace 2>/dev/null
}

# The numbers of the profiles. Their names stand behind them where the shell lists what there is and
# inserts no more than the candidates have in common.
_ormel_offer_indexes() {
  local LC_ALL=C line number i index='' names=()
  while IFS= read -r line; do
    case $line in
      '['*)
        number=${line#"[$section"} number=${number%]}
        [[ $section && $number =~ ^([1-9]|[12][0-9]|3[0-2])$ && $line == "[$section$number]" ]] ||
          number=''
        index=$number
        ;;
      'Index = '[1-9]*) [[ ! $index ]] || names[index]=${names[index]-} ;;
      'Profile File = '*) [[ ! $index ]] || names[index]=${line#*= } ;;
    esac
  done 2>/dev/null </etc/config/vpn.conf
  _ormel_offer "${!names[@]}"
  [[ $COMP_TYPE =~ ^(33|63|64)$ && ${#COMPREPLY[@]} -gt 1 ]] || return 0
  for i in "${!COMPREPLY[@]}"; do
    line=${names[${COMPREPLY[i]}]-}
    COMPREPLY[i]+=${line:+ (${line//[^[:print:]]/?})}
  done
}

_ormel_offer_interfaces() {
  local path
  _ormel_offer all none
  for path in /sys/class/net/*; do
    if [[ ${path##*/} =~ $_ormel_interface ]]; then _ormel_offer "${path##*/}"; fi
  done
}

_ormel() {
  local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} name argument='' type \
    section words
  COMPREPLY=()
  IFS=';' read -r type _ section <<<"$(_ormel_chosen_type)"
  # "=" is a word of its own.
  if [[ $cur == = ]]; then
    cur=''
  elif [[ $before == = ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  IFS=';' read -r name _ argument _ <<<"$(_ormel_row "$before")"
  case $argument in
    '') _ormel_offer_options ;;
    TYPE)
      read -ra words <<<"$_ormel_types"
      _ormel_offer "${words[@]%%;*}"
      ;;
    INDEX)
      [[ $section && $name != show ]] || _ormel_offer 0
      _ormel_offer_indexes
      ;;
    FILE | PROGRAM)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      ;;
    INTERFACE) _ormel_offer_interfaces ;;
    *'|'*)
      IFS='|' read -ra words <<<"$argument"
      _ormel_offer "${words[@]}"
      ;;
  esac
}

complete -F _ormel ormel
