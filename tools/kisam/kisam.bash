# bash completion for kisam(1): commands, their options, and file names.
_kisam() {
    local cur prev cmd i
    COMPREPLY=()
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands="config create info check get scan put del dump load import export stat backup compact help"

    # The command is the first word that is neither an option nor the value of --config.
    cmd=""
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --config) ((i++)) ;;
            --quiet) ;;
            *) cmd=${COMP_WORDS[i]}; break ;;
        esac
    done

    case $prev in
        --config) COMPREPLY=($(compgen -f -- "$cur")); return ;;
        --key|--limit|--every|--count|--files|--buffers|--users|--keys|--files-per-process|\
        --file-buffers|--avg-alt-keys|--lock-key-len|--locks-per-file|--from|--to|--fields)
            return ;;
    esac

    if [ -z "$cmd" ]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "--config --quiet --version --help" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi

    local opts=""
    case $cmd in
        config)
            if [ "$COMP_CWORD" -eq $((i + 1)) ]; then
                COMPREPLY=($(compgen -W "init show" -- "$cur")); return
            fi
            opts="--files --buffers --users --keys --files-per-process --file-buffers --avg-alt-keys
                  --lock-key-len --locks-per-file --track-changes --sync-on-mark --clear-on-release --force --access" ;;
        create) opts="--key-in-index --small-header --force" ;;
        info) opts="--json" ;;
        check) opts="--clear-mark --json" ;;
        get) opts="--key --ignore-mark --json --raw" ;;
        scan) opts="--key --from --to --backward --limit --count --ignore-mark --json --json-array --raw" ;;
        put) opts="--replace --update" ;;
        del) opts="" ;;
        dump) opts="--ignore-mark --salvage --keys --key-in-index" ;;
        load) opts="" ;;
        import) opts="--fields --replace --no-header" ;;
        export) opts="--fields --csv --json --json-array --ignore-mark" ;;
        stat) opts="--every --count --json" ;;
        backup|compact) opts="" ;;
        help) COMPREPLY=($(compgen -W "$commands" -- "$cur")); return ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$opts --config --quiet --help" -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -o filenames -F _kisam kisam
