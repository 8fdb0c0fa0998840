#include "KlarboxCLI/Application.hpp"

#include "KlarboxApp/InputError.hpp"
#include "KlarboxCLI/CleanCommand.hpp"
#include "KlarboxCLI/ExitCode.hpp"
#include "KlarboxCLI/HelpFormatter.hpp"
#include "KlarboxCLI/HelperCommand.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/ScanCommand.hpp"
#include "KlarboxCLI/SettingsCommand.hpp"
#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/ProcessSecurity.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <clocale>
#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

/// An empty name is a slip, mostly that of a script whose variable is not set; it must not stand
/// for the default.
std::string notEmpty(const std::string &name) {
    return name.empty() ? "the name is empty" : "";
}

ColorChoice colorChoice(const std::string &when) {
    static const std::map<std::string, ColorChoice> choices{
        {"auto", ColorChoice::automatic},
        {"always", ColorChoice::always},
        {"never", ColorChoice::never},
    };
    const auto found = choices.find(when);
    if (found == choices.end()) {
        throw UsageError(
            fmt::format("--color: '{}' is not auto, always or never", Text::visible(when)));
    }
    return found->second;
}

void addScanOptions(CLI::App &command, ScanOptions &options) {
    command.add_option("--home", options.home, "The home folder to scan (default: your own)")
        ->type_name("DIR")
        ->check(notEmpty, "");
    command
        .add_option("--disk", options.disk,
                    "Where the Mac's startup disk is mounted; system folders and volumes are "
                    "taken below it (default: /)")
        ->type_name("DIR")
        ->check(notEmpty, "");
    command
        .add_option("--settings", options.settingsFile,
                    "A settings file to use instead of the saved one")
        ->type_name("FILE")
        ->check(notEmpty, "");
    command
        .add_option("--environment", options.environmentFile,
                    "Facts about the machine to use instead of the live ones")
        ->type_name("FILE")
        ->check(notEmpty, "");
    command
        .add_option("--minimum-size", options.minimumSize,
                    "Offer nothing smaller than this: 0, 500kB, 1MB, or a number of bytes "
                    "(default: 1MB)")
        ->type_name("SIZE");
    command
        .add_option("--category", options.categories,
                    "Look only into this category (may be repeated)")
        ->type_name("ID")
        ->type_size(1)
        ->allow_extra_args(false);
    command.add_flag("--json", options.json, "Write one JSON document and nothing else");
    command.add_flag("--no-progress", options.noProgress, "Draw no progress");
    command
        .add_option_function<std::string>(
            "--color", [&options](const std::string &when) { options.color = colorChoice(when); },
            "When to use colour: auto, always or never (default: auto)")
        ->type_name("WHEN");

    command.footer(helpSection("Categories",
                               fmt::format("{}", fmt::join(CategoryCatalog::identifiers(), ", "))));
}

void addCleanOptions(CLI::App &command, CleanOptions &options) {
    addScanOptions(command, options.scan);
    command.add_flag("--trash", options.trash, "Move what is cleaned to the Trash (the default)");
    command.add_flag("--permanent", options.permanent, "Delete permanently instead");
    command.add_flag("--default-selection", options.defaultSelection,
                     "Select everything that starts out selected");
    command
        .add_option("--item", options.items,
                    "Select the item with this identifier, as scan --json shows it (may be "
                    "repeated)")
        ->type_name("ID")
        ->type_size(1)
        ->allow_extra_args(false);
    command.add_flag("--yes", options.yes, "Do not ask");
    command.add_flag("--dry-run", options.dryRun, "Show what would be done, touch nothing");
}

void addSettingsCommands(CLI::App &command, SettingsOptions &options) {
    command.add_option("--settings", options.file, "The file to use instead of the saved settings")
        ->type_name("FILE")
        ->check(notEmpty, "");
    command.require_subcommand(0, 1);
    const auto add = [&](const char *name, const char *what, bool hasKey, const char *value) {
        auto *action = command.add_subcommand(name, what);
        action->callback([&options, name] { options.action = name; });
        action->fallthrough();
        if (hasKey) {
            action->add_option("KEY", options.key, "The setting's name")->required()->type_name("");
        }
        if (value != nullptr) {
            action->add_option("VALUE", options.values, value)
                ->required()
                ->expected(-1)
                ->type_name("...");
        }
    };
    add("show", "Show all settings (the default)", false, nullptr);
    add("get", "Print one setting", true, nullptr);
    add("set", "Change one setting", true, "The new value, or all paths of a list");
    add("add", "Add paths to a list", true, "Absolute paths, or ~/ and the rest");
    add("remove", "Take paths out of a list", true, "Paths as the list has them");
    add("path", "Print where the settings are saved", false, nullptr);
    add("check", "Tell whether the settings file is sound", false, nullptr);
    command.footer(helpSection("Settings", settingsSummary()));
}

constexpr const char *examples =
    "  klarbox scan                              show what can be cleaned here\n"
    "  klarbox clean                             choose from it, confirm, clean\n"
    "  klarbox clean --default-selection --dry-run\n"
    "                                            show what the usual choice would do\n"
    "  klarbox scan --disk /mnt/mac --home /mnt/mac/Users/ann\n"
    "                                            look at the disk of another Mac\n";

/// What standard output is to show when parsing ends in a request for it.
std::string helpOrVersion(const CLI::App &app, const CLI::Success &asked) {
    std::ostringstream out;
    app.exit(asked, out, out);
    return out.str();
}

/// A usage error in this program's own words where those of the parser would not help.
UsageError usageError(const CLI::App &app, const CLI::ParseError &error) {
    const auto unknown = app.remaining(true);
    if (app.get_subcommands().empty() && !unknown.empty() && !unknown.front().starts_with('-')) {
        return UsageError(fmt::format("there is no command '{}'; the commands are scan, clean, "
                                      "settings, helper and help",
                                      Text::visible(unknown.front())));
    }
    if (!unknown.empty() && dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr) {
        return UsageError(fmt::format("'{}' is not expected here (klarbox --help tells more)",
                                      Text::visible(unknown.front())));
    }
    return UsageError(fmt::format("{} (klarbox --help tells more)", error.what()));
}

int run(int argc, char **argv, Interrupt &interrupt) {
    CLI::App app{"Finds the disk space you can take back, and gives it back"};
    app.name("klarbox");
    app.formatter(std::make_shared<HelpFormatter>());
    app.set_help_flag("-h,--help", "Show help on a command");
    app.set_version_flag("--version", "klarbox " KLARBOX_VERSION, "Show the version");
    app.require_subcommand(0, 1);
    ScanOptions scanOptions;
    CleanOptions cleanOptions;
    SettingsOptions settingsOptions;
    std::string helpTopic;
    auto *scan = app.add_subcommand("scan", "Show what can be cleaned; remove nothing");
    addScanOptions(*scan, scanOptions);
    auto *clean = app.add_subcommand("clean", "Scan, then clean what you select");
    addCleanOptions(*clean, cleanOptions);
    auto *settings = app.add_subcommand("settings", "Show, change and check the scan settings");
    addSettingsCommands(*settings, settingsOptions);
    auto *helper = app.add_subcommand("helper", "Tell whether the privileged helper works");
    auto *help = app.add_subcommand("help", "Show help on a command");
    help->add_option("COMMAND", helpTopic, "scan, clean, settings or helper")->type_name("");
    // Not before the commands are there: each would take it over.
    app.footer(fmt::format(
        "Examples:\n{}\n{}", examples,
        helpSection("Exit status",
                    "0 done, 1 something could not be cleaned, 2 wrong usage or unreadable input "
                    "(nothing was touched), 130 stopped with Ctrl-C.")));

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &asked) {
        write(stdout, helpOrVersion(app, asked));
        return ExitCode::done;
    } catch (const CLI::ParseError &error) {
        throw usageError(app, error);
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
        std::ostringstream out;
        const int exitCode = runHelperCommand(out);
        write(stdout, out.str());
        return exitCode;
    }
    if (helpTopic.empty()) {
        write(stdout, app.get_formatter()->make_help(&app, "klarbox", CLI::AppFormatMode::Normal));
        return ExitCode::done;
    }
    const auto topics = app.get_subcommands(
        [&](const CLI::App *command) { return command->get_name() == helpTopic; });
    if (topics.empty()) {
        throw UsageError(fmt::format("help: there is no command '{}'", Text::visible(helpTopic)));
    }
    write(stdout, topics.front()->help("klarbox"));
    return ExitCode::done;
}

/// Around what is wrong with input: how it is given here.
std::pair<std::string_view, std::string_view> context(InputError::Input input) {
    switch (input) {
    case InputError::Input::disk:
        return {"--disk: ", ""};
    case InputError::Input::home:
        return {"--home: ", ""};
    case InputError::Input::whichHome:
        return {"--disk: ", "; name one with --home"};
    case InputError::Input::item:
        return {"--item: ", ""};
    case InputError::Input::other:
        break;
    }
    return {};
}

/// Says why nothing was done, on one line.
void tellWhy(const std::exception &error, InputError::Input input) noexcept {
    try {
        const auto [before, behind] = context(input);
        tell(fmt::format("klarbox: {}{}{}\n", before, Text::visible(error.what()), behind));
    } catch (const std::bad_alloc &) {
        tell("klarbox: out of memory\n");
    }
}

} // namespace

int runApplication(int argc, char **argv) {
    occupyStandardStreams();
    std::setlocale(LC_CTYPE, "C.UTF-8"); // NOLINT(concurrency-mt-unsafe): before any thread
    try {
        ProcessSecurity::setGroupAside();
        Interrupt interrupt;
        return run(argc, argv, interrupt);
    } catch (const std::bad_alloc &) {
        tell("klarbox: out of memory\n");
    } catch (const InputError &error) {
        tellWhy(error, error.input());
    } catch (const std::exception &error) {
        tellWhy(error, InputError::Input::other);
    }
    return ExitCode::usage;
}

} // namespace klarbox
