# Completion for kova-mcp. Written by scripts/make_command_files.py.
_kova_mcp() {
  local -A commands=(

  )
  local -A options=(
    ["kova-mcp"]="--check-policy --check-config --issue-approval --http"
  )
  local -A values=(
    ["kova-mcp --http"]="TEXT"
  )
  local current=${COMP_WORDS[COMP_CWORD]} path=kova-mcp before='' help='' word kind i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    kind=''
    if [[ $before == -* ]]; then
      kind=${values["$path $before"]-}
    fi
    before=$word
    if [[ -n $kind ]]; then
      before=''
    elif [[ $path == kova-mcp && $word == help ]]; then
      help=1
    elif [[ " ${commands[$path]-} " == *" $word "* ]]; then
      path+=" $word"
    fi
  done
  COMPREPLY=()
  kind=''
  if [[ $before == -* ]]; then
    kind=${values["$path $before"]-}
  fi
  if [[ -n $help ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${commands[$path]-}" -- "$current")
  elif [[ $kind == FILE ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  elif [[ $kind == FOLDER ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
  elif [[ $kind == TEXT ]]; then
    return 0
  elif [[ -n $kind ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$kind" -- "$current")
  elif [[ $current == -* || -z ${commands[$path]-} ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${options[$path]-}" -- "$current")
    if [[ $current != -* && -n ${values["$path <"]-} ]]; then
      compopt -o filenames 2>/dev/null
      mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
    fi
  else
    mapfile -t COMPREPLY < <(compgen -W "${commands[$path]}" -- "$current")
  fi
}
complete -F _kova_mcp kova-mcp
