# Completion of klarbox for fish.

set -l commands scan clean settings helper help
set -l actions show get set add remove path check
set -l none "not __fish_seen_subcommand_from $commands"
set -l both "__fish_seen_subcommand_from scan clean"
set -l clean "__fish_seen_subcommand_from clean"
set -l settings "__fish_seen_subcommand_from settings; and not __fish_seen_subcommand_from $actions"
set -l categories user-caches logs trash mail-downloads installers system-caches system-logs \
    system-crash-reports xcode simulators simulator-dyld-caches package-caches project-artifacts \
    docker homebrew ai-sessions orphaned-containers broken-preferences broken-launch-agents

complete -c klarbox -f
complete -c klarbox -s h -l help -d "Show help"
complete -c klarbox -n $none -l version -d "Show the version"
complete -c klarbox -n $none -a scan -d "Show what can be cleaned; remove nothing"
complete -c klarbox -n $none -a clean -d "Scan, then clean what you select"
complete -c klarbox -n $none -a settings -d "Show, change and check the scan settings"
complete -c klarbox -n $none -a helper -d "Tell whether the privileged helper works"
complete -c klarbox -n $none -a help -d "Show help on a command"
complete -c klarbox -n "__fish_seen_subcommand_from help" -a "scan clean settings helper"

complete -c klarbox -n $both -l home -x -a "(__fish_complete_directories)" -d "The home folder to scan"
complete -c klarbox -n $both -l disk -x -a "(__fish_complete_directories)" -d "Where the startup disk is mounted"
complete -c klarbox -n "$both; or __fish_seen_subcommand_from settings" -l settings -rF -d "Settings to use instead"
complete -c klarbox -n $both -l environment -rF -d "Facts about the machine to use instead"
complete -c klarbox -n $both -l minimum-size -x -a "0 100kB 1MB 10MB 100MB 1GB" -d "Offer nothing smaller"
complete -c klarbox -n $both -l category -x -a "$categories" -d "Look only into this category"
complete -c klarbox -n $both -l json -d "Write one JSON document"
complete -c klarbox -n $both -l no-progress -d "Draw no progress"
complete -c klarbox -n $both -l color -x -a "auto always never" -d "When to use colour"

complete -c klarbox -n $clean -l trash -d "Move to the Trash (the default)"
complete -c klarbox -n $clean -l permanent -d "Delete permanently"
complete -c klarbox -n $clean -l default-selection -d "Select everything that starts out selected"
complete -c klarbox -n $clean -l item -x -d "Select this item"
complete -c klarbox -n $clean -l yes -d "Do not ask"
complete -c klarbox -n $clean -l dry-run -d "Touch nothing"

complete -c klarbox -n $settings -a "$actions"
complete -c klarbox -n "__fish_seen_subcommand_from get set" \
    -a "projectRoots includeNodeModules staleProjectDays excludedPaths"
complete -c klarbox -n "__fish_seen_subcommand_from settings; and __fish_seen_subcommand_from add remove" \
    -a "projectRoots excludedPaths"
