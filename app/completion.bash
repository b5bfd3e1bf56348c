# Completion of zephlore's words for bash. The program itself knows them; where it offers none, files are offered.
_zephlore() {
    local IFS=$'\n'
    COMPREPLY=($("$1" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2> /dev/null))
}
complete -o bashdefault -o default -F _zephlore zephlore
