# Completion of bash for tavrel-nifti and tavrel-bids. The options are those that --help lists.

# _tavrel_options COMMAND: its options, long and short.
_tavrel_options() {
  "$1" --help 2>/dev/null | grep -oE '^ +-[^ ]+' | tr ',' '\n' | tr -d ' '
}

# _tavrel_values OPTION: what may follow it, for options that take words.
_tavrel_values() {
  case $1 in
  --finish) echo brain none ;;
  --evolution) echo scan exact ;;
  --w5 | --resample) echo auto ;;
  --slurm-options) echo --partition= --account= --qos= --constraint= --time= --mem= ;;
  esac
}

# _tavrel_labels PREFIX GLOB...: labels of folders, without the prefix.
_tavrel_labels() {
  local prefix=$1 folder
  shift
  for folder; do
    [[ -d $folder ]] && folder=${folder##*/} && echo "${folder#"$prefix"}"
  done
}

_tavrel() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} choices=
  local dataset=${COMP_WORDS[1]-} option=$before at
  # The option that several words follow.
  for ((at = COMP_CWORD - 1; at > 0; --at)); do
    [[ ${COMP_WORDS[at]} == -* ]] && option=${COMP_WORDS[at]} && break
  done
  case $option in
  --participant-label | --participant_label)
    choices=$(_tavrel_labels sub- "$dataset"/sub-*) ;;
  --session-label | --session_label | --session-id)
    choices=$(_tavrel_labels ses- "$dataset"/sub-*/ses-* | sort -u) ;;
  esac
  if [[ $current == -* ]]; then
    choices=$(_tavrel_options "${COMP_WORDS[0]}")
  elif [[ -z $choices ]]; then
    choices=$(_tavrel_values "$before")
  fi
  [[ -z $choices && $1 == *tavrel-bids && $COMP_CWORD == 3 ]] && choices="participant group"
  mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
  ((${#COMPREPLY[@]} > 0)) || compopt -o default
}

complete -F _tavrel tavrel-nifti tavrel-bids
