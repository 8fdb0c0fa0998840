#include "KlarboxCLI/Application.hpp"

#include "KlarboxCLI/CleanCommand.hpp"
#include "KlarboxCLI/HelperCommand.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/ScanCommand.hpp"
#include "KlarboxCLI/SettingsCommand.hpp"
#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Platform/ProcessSecurity.hpp"
#include "KlarboxKit/Platform/Text.hpp"

#include <clocale>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace klarbox {

namespace {

void addScanOptions(CLI::App &command, ScanOptions &options) {
    command.add_option("--home", options.home, "The home folder to scan (default: your own)")
        ->type_name("DIR");
    command
        .add_option("--disk", options.disk,
                    "Where the Mac's startup disk is mounted; system folders and volumes are "
                    "taken below it")
        ->type_name("DIR")
        ->capture_default_str();
    command
        .add_option("--settings", options.settingsFile,
                    "A settings file to use instead of the saved one")
        ->type_name("FILE");
    command
        .add_option("--environment", options.environmentFile,
                    "Facts about the machine to use instead of the live ones")
        ->type_name("FILE");
    command
        .add_option("--minimum-size", options.minimumSize,
                    "Offer nothing smaller than this: 0, 500kB, 1MB, or a number of bytes")
        ->type_name("SIZE")
        ->capture_default_str();
    command
        .add_option("--category", options.categories,
                    "Look only into this category (may be repeated)")
        ->type_name("ID")
        ->type_size(1)
        ->allow_extra_args(false);
    command.add_flag("--json", options.json, "Write one JSON document and nothing else");
    command.add_flag("--no-progress", options.noProgress, "Draw no progress");
    static const std::map<std::string, ColorChoice> choices{
        {"auto", ColorChoice::automatic},
        {"always", ColorChoice::always},
        {"never", ColorChoice::never},
    };
    command.add_option("--color", options.color, "auto, always or never")
        ->type_name("WHEN")
        ->transform(CLI::Transformer(choices))
        ->check(CLI::IsMember(choices));
}

void addCleanOptions(CLI::App &command, CleanOptions &options) {
    addScanOptions(command, options.scan);
    auto *trash =
        command.add_flag("--trash")->description("Move what is cleaned to the Trash (the default)");
    command.add_flag("--permanent", options.permanent, "Delete permanently instead")
        ->excludes(trash);
    command.add_flag("--default-selection", options.defaultSelection,
                     "Select everything that starts out selected");
    command.add_option("--item", options.items, "Select this item (may be repeated)")
        ->type_name("ID")
        ->type_size(1)
        ->allow_extra_args(false);
    command.add_flag("--yes", options.yes, "Do not ask");
    command.add_flag("--dry-run", options.dryRun, "Show what would be done, touch nothing");
}

void addSettingsCommands(CLI::App &command, SettingsOptions &options) {
    command.add_option("--settings", options.file, "The file to use instead of the saved settings")
        ->type_name("FILE");
    command.require_subcommand(0, 1);
    const auto add = [&](const char *name, const char *what, bool hasKey, int values) {
        auto *action = command.add_subcommand(name, what);
        action->callback([&options, name] { options.action = name; });
        action->fallthrough();
        if (hasKey) {
            action->add_option("key", options.key, "The setting's name")->required();
        }
        if (values != 0) {
            action->add_option("value", options.values, "The value")->required()->expected(values);
        }
    };
    add("show", "Show all settings (the default)", false, 0);
    add("get", "Print one setting", true, 0);
    add("set", "Change one setting", true, -1);
    add("add", "Add paths to a list", true, -1);
    add("remove", "Take paths out of a list", true, -1);
    add("path", "Print where the settings are saved", false, 0);
    add("check", "Tell whether the settings file is sound", false, 0);
}

int run(int argc, char **argv, Interrupt &interrupt) {
    CLI::App app{"Finds the disk space you can take back, and gives it back."};
    app.name("klarbox");
    app.set_version_flag("--version", "klarbox " KLARBOX_VERSION);
    app.require_subcommand(0, 1);

    ScanOptions scanOptions;
    CleanOptions cleanOptions;
    SettingsOptions settingsOptions;
    auto *scan = app.add_subcommand("scan", "Show what can be cleaned; remove nothing");
    addScanOptions(*scan, scanOptions);
    auto *clean = app.add_subcommand("clean", "Scan, then clean what you select");
    addCleanOptions(*clean, cleanOptions);
    auto *settings = app.add_subcommand("settings", "Show, change and check the scan settings");
    addSettingsCommands(*settings, settingsOptions);
    auto *helper = app.add_subcommand("helper", "Tell whether the privileged helper works");
    app.add_subcommand("help", "Show this help");

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &asked) {
        return app.exit(asked); // prints the help or the version
    } catch (const CLI::ParseError &error) {
        throw UsageError(std::string(error.what()) + " (klarbox --help tells more)");
    }

    if (scan->parsed()) {
        return runScan(scanOptions, interrupt);
    }
    if (clean->parsed()) {
        return runClean(cleanOptions, interrupt);
    }
    if (settings->parsed()) {
        return runSettings(settingsOptions);
    }
    if (helper->parsed()) {
        return runHelperCommand(std::cout);
    }
    write(stdout, app.help());
    return ExitCode::done;
}

} // namespace

int runApplication(int argc, char **argv) {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // NOLINT(concurrency-mt-unsafe): before any thread
    try {
        ProcessSecurity::setGroupAside();
        Interrupt interrupt;
        return run(argc, argv, interrupt);
    } catch (const UsageError &error) {
        fmt::print(stderr, "klarbox: {}\n", Text::visible(error.what()));
    } catch (const std::exception &error) {
        fmt::print(stderr, "klarbox: {}\n", Text::visible(error.what()));
    }
    return ExitCode::usage;
}

} // namespace klarbox
