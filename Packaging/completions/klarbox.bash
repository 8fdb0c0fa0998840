# Completion of klarbox for bash.

_klarbox() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' action='' word words=''
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        scan | clean | settings | helper | help) [ -n "$command" ] || command=$word ;;
        show | get | set | add | remove | path | check)
            [ "$command" != settings ] || [ -n "$action" ] || action=$word
            ;;
        esac
    done

    local scan='--home --disk --settings --environment --minimum-size --category --json
        --no-progress --color --help'
    case $prev in
    --home | --disk)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        return
        ;;
    --settings | --environment)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    --color) words='auto always never' ;;
    --minimum-size) words='0 100kB 1MB 10MB 100MB 1GB' ;;
    --category)
        words='user-caches logs trash mail-downloads installers system-caches system-logs
            system-crash-reports xcode simulators simulator-dyld-caches package-caches
            project-artifacts docker homebrew ai-sessions orphaned-containers broken-preferences
            broken-launch-agents'
        ;;
    --item) return ;;
    *)
        case $command:$action in
        :) words='scan clean settings helper help --help --version' ;;
        scan:) words=$scan ;;
        clean:)
            words="$scan --trash --permanent --default-selection --item --yes --dry-run"
            ;;
        settings:) words='show get set add remove path check --settings --help' ;;
        settings:get | settings:set | settings:add | settings:remove)
            case $prev in
            get | set) words='projectRoots includeNodeModules staleProjectDays excludedPaths' ;;
            add | remove) words='projectRoots excludedPaths' ;;
            includeNodeModules) words='true false' ;;
            staleProjectDays) ;;
            *)
                [ "$action" != get ] || return
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -d -- "$cur")
                return
                ;;
            esac
            ;;
        settings:*) words='--settings --help' ;;
        helper:) words='--help' ;;
        help:) words='scan clean settings helper' ;;
        esac
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
}

complete -F _klarbox klarbox
