# bash completion for samgrd, migrate_serviced, migratectl and vexa-session             -*- shell-script -*-
# SPDX-License-Identifier: Apache-2.0
# What can come next is what --help of the command so far lists, so that no list stands here.

_native_migrate()
{
    local cur prev words cword
    _init_completion || return
    local i command=("$1")
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --)
                _command_offset $((i + 1))
                return
                ;;
            -*) ;;
            *)
                # A word that is the value of an option or an argument names no subcommand.
                "${command[@]}" --help 2>/dev/null | grep -Eq "^  ${words[i]//[^a-z-]/.} " && command+=("${words[i]}")
                ;;
        esac
    done

    case $prev in
        --profiles | --runtime-dir | --source | --target)
            _filedir -d
            return
            ;;
        --samgrd | --state)
            _filedir
            return
            ;;
        --control-group)
            COMPREPLY=($(compgen -g -- "$cur"))
            return
            ;;
        --stage)
            COMPREPLY=($(compgen -W "all prepare download install restore finish" -- "$cur"))
            return
            ;;
    esac

    local help
    help="$("${command[@]}" --help 2>/dev/null)"
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$(grep -Eo -- '^  (-[a-z],)?--[a-z-]+' <<<"$help" | grep -Eo -- '--[a-z-]+')" -- "$cur"))
    else
        COMPREPLY=($(compgen -W "$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p' <<<"$help")" -- "$cur"))
    fi
} && complete -F _native_migrate samgrd migrate_serviced migratectl vexa-session
