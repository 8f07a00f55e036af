# Completion of cpudefendctl for bash: the program itself says what may come next.
_cpudefendctl()
{
    local line=${COMP_LINE:0:COMP_POINT} words cur
    read -ra words <<<"$line"
    [[ $line == *[[:space:]] ]] && words+=("")
    cur=${words[-1]}
    mapfile -t COMPREPLY < <("${words[0]}" __complete "${words[@]:1}" 2>/dev/null)
    # A key still wants its value: no blank behind it.
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *= ]] && compopt -o nospace
    # Where "=" parts words, bash replaces only what stands behind it.
    if [[ $cur == *=* && $COMP_WORDBREAKS == *=* ]]; then
        COMPREPLY=("${COMPREPLY[@]#"${cur%%=*}="}")
    fi
}
complete -F _cpudefendctl cpudefendctl
