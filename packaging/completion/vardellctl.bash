# bash completion for vardellctl(8)                        -*- shell-script -*-
# vardellctl knows what may come next ("vardellctl complete"); this fits it into the line.

# $1 as the command would get it, in REPLY. Nothing in it is run or expanded. False where quotes
# begin or end within it.
_vardellctl_unquote()
{
    local text=$1 quote= c i mixed=
    REPLY=
    for ((i = 0; i < ${#text}; i++)); do
        c=${text:i:1}
        if [[ $quote == \' ]]; then
            if [[ $c == \' ]]; then quote= mixed=1; else REPLY+=$c; fi
        elif [[ $c == \\ && $quote == \" && ${text:i+1:1} != [\$\`\"\\] ]]; then
            REPLY+=$c
        elif [[ $c == \\ ]]; then
            ((++i))
            REPLY+=${text:i:1}
        elif [[ $c == "$quote" ]]; then
            quote= mixed=1
        elif [[ -z $quote && $c == [\"\'] ]]; then
            quote=$c
            [[ $i -eq 0 ]] || mixed=1
        else
            REPLY+=$c
        fi
    done
    [[ -z $mixed ]]
}

_vardellctl()
{
    local cur words cword REPLY word typed plain=() candidates=() candidate
    _get_comp_words_by_ref -n =: cur words cword || return
    for word in "${words[@]:1:cword-1}"; do
        _vardellctl_unquote "$word"
        plain+=("$REPLY")
    done
    COMPREPLY=()
    _vardellctl_unquote "$cur" || return
    typed=$REPLY
    plain+=("$typed")
    mapfile -t candidates < <(vardellctl complete -- "${plain[@]}" 2>/dev/null)

    if [[ ${candidates[*]} == '<files>' ]]; then
        [[ $cur == --*=* ]] && cur=${cur#*=}
        _filedir
        return
    fi

    # What readline replaces begins behind an opening quote, or else behind the last of the
    # characters that it takes for a word break.
    local done=
    if [[ $cur != [\"\']* ]]; then
        [[ $COMP_WORDBREAKS == *=* && $typed == *=* ]] && done=${typed%"${typed##*=}"}
        [[ $COMP_WORDBREAKS == *:* && ${typed#"$done"} == *:* ]] && done=${typed%"${typed##*:}"}
    fi
    for candidate in "${candidates[@]}"; do
        candidate=${candidate#"$done"}
        case $cur in
            \"*) ;;
            \'*) [[ $candidate == *\'* ]] && continue ;;
            *) printf -v candidate %q "$candidate" ;;
        esac
        COMPREPLY+=("$candidate")
    done
    # The value of a key follows at once.
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *= ]] && compopt -o nospace 2>/dev/null
    return 0
} && complete -F _vardellctl vardellctl
