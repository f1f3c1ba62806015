# Completion of corpdir(1) for bash. Needs nothing but bash itself.

_corpdir()
{
    local request="--servers --port --local-ip --user --password-file --version-file
        --directory-file --output-dir --version-name --directory-name --ca --verify-name
        --no-verify --plain --ciphers --connect-timeout --max-size --log-dir --log-level
        --log-size --log-files --json --quiet --config --no-config --help -h"
    local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} command="" index
    COMPREPLY=()

    # bash splits "--option=value" into three words.
    if [[ $word == "=" ]]; then
        word=""
    elif [[ $option == "=" ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi

    # The command: the first word that is neither an option nor the value of --config.
    for ((index = 1; index < COMP_CWORD && ${#command} == 0; index++)); do
        case ${COMP_WORDS[index]} in
            --config)
                index=$((index + 1))
                [[ ${COMP_WORDS[index]} == "=" ]] && index=$((index + 1)) ;;
            -*) ;;
            *) command=${COMP_WORDS[index]} ;;
        esac
    done

    case $option in
        --config | --password-file)
            _corpdir_files -f "$word"
            return ;;
        --output-dir | --log-dir)
            _corpdir_files -d "$word"
            return ;;
        --ca)
            _corpdir_files -f "$word"
            _corpdir_words "system" "$word"
            return ;;
        --log-level)
            _corpdir_words "0 1 2" "$word"
            return ;;
        --ciphers)
            [[ $word == *,* ]] || _corpdir_words "compatible modern service" "$word"
            # Both names of each suite, for the last element of a list.
            _corpdir_words "$("$1" ciphers 2>/dev/null | awk 'NR > 1 { print $(NF - 1), $NF }')" \
                "${word##*,}" "${word%"${word##*,}"}"
            compopt -o nospace 2>/dev/null
            return ;;
        --exec | --on-failure)
            mapfile -t COMPREPLY < <(compgen -c -- "$word" | sort -u)
            return ;;
        --servers | --port | --local-ip | --user | --version-file | --directory-file | \
            --version-name | --directory-name | --verify-name | --connect-timeout | --max-size | \
            --log-size | --log-files | --timeout | --max-time | --max-age | --retry | --splay |\
            --exec-timeout)
            return ;;
    esac

    case $command in
        "")
            case $word in
                -*) _corpdir_words "--config --no-config --version -V --help -h" "$word" ;;
                *) _corpdir_words "fetch watch check status ciphers" "$word" ;;
            esac ;;
        fetch) _corpdir_words "$request --if-changed --timeout --max-time --no-progress" "$word" ;;
        watch) _corpdir_words "$request --retry --splay --exec --on-failure --exec-timeout" "$word" ;;
        check) _corpdir_words "$request --timeout --max-time" "$word" ;;
        status) _corpdir_words "--output-dir --directory-file --directory-name --max-age --json --config
            --no-config --help -h" "$word" ;;
        ciphers) _corpdir_words "--config --no-config --json --help -h" "$word" ;;
    esac
}

# Adds the words of a list that start with what is typed: LIST TYPED [PREFIX].
_corpdir_words()
{
    local found
    mapfile -t found < <(compgen -P "${3:-}" -W "$1" -- "$2")
    COMPREPLY+=("${found[@]}")
}

# Adds files (-f) or directories (-d) that start with what is typed.
_corpdir_files()
{
    mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
    compopt -o filenames 2>/dev/null  # fails outside of a completion
}

complete -F _corpdir corpdir
