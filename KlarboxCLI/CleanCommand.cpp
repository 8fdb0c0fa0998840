#include "KlarboxCLI/CleanCommand.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/PrivilegedAccess.hpp"
#include "KlarboxCLI/ProgressLine.hpp"
#include "KlarboxCLI/ScanDocument.hpp"
#include "KlarboxCLI/ScanSession.hpp"
#include "KlarboxCLI/ScanTable.hpp"
#include "KlarboxCLI/Selection.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Platform/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"

#include <algorithm>
#include <iostream>
#include <memory>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Whether questions can be asked: they go to standard error, answers come from standard input.
bool canAsk() {
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
}

/// The answer to a question, without its line end; empty at the end of input.
std::string ask(const std::string &question) {
    write(stderr, question);
    std::string answer;
    if (!std::getline(std::cin, answer)) {
        write(stderr, "\n");
        return {};
    }
    return answer;
}

/// Lets the person choose from a numbered list.
std::vector<CategoryScan> askForSelection(const std::vector<CategoryScan> &scans,
                                          const OutputStyle &style) {
    write(stderr, scanTable(scans, {.style = style, .numbered = true}));
    const auto numbered = numberedItems(scans);
    if (numbered.empty()) {
        return scans;
    }
    std::vector<std::size_t> byDefault;
    for (std::size_t i = 0; i < numbered.size(); ++i) {
        if (numbered[i]->isSelectedByDefault) {
            byDefault.push_back(i + 1);
        }
    }
    std::string instruction = "\n";
    for (const auto &line : DisplayText::wrapped("What shall be cleaned? Give numbers and ranges "
                                                 "such as 1 3-5, \"default\" for what is "
                                                 "marked [x], \"all\", or \"none\".",
                                                 style.width)) {
        instruction += line + "\n";
    }
    for (;;) {
        const auto answer = ask(instruction + "Clean [none]: ");
        if (const auto numbers = Selection::parseAnswer(answer, numbered.size(), byDefault)) {
            return Selection::selectNumbers(scans, *numbers);
        }
        write(stderr, fmt::format("That is no choice among 1 to {}.\n", numbered.size()));
        instruction.clear();
    }
}

/// What is about to happen to a selection, counted.
struct Plan {
    std::size_t count = 0;
    std::int64_t bytes = 0;
    std::size_t permanent = 0;
    std::size_t privileged = 0;
    std::vector<std::string> commands;

    Plan(const std::vector<KlarboxItem> &items, RemovalMode mode) : count(items.size()) {
        for (const auto &item : items) {
            bytes = saturatingAdd(bytes, item.size);
            if (const auto *command = std::get_if<KlarboxTarget::Command>(&item.target.value())) {
                commands.push_back(Text::visible(command->action.displayString()));
                continue;
            }
            const bool isPermanent = mode == RemovalMode::deletePermanently ||
                                     item.removalPolicy == RemovalPolicy::permanentOnly ||
                                     item.requiresPrivileges;
            permanent += isPermanent ? 1 : 0;
            privileged += item.requiresPrivileges ? 1 : 0;
        }
    }

    std::string description(const PrivilegedAccess &access) const {
        std::string text = fmt::format("{}, {}, selected.\n", DisplayText::count(count, "item"),
                                       DisplayText::size(bytes));
        if (const auto trashed = count - permanent - commands.size(); trashed > 0) {
            text += fmt::format("  {} will be moved to the Trash.\n",
                                DisplayText::count(trashed, "item"));
        }
        if (permanent > 0) {
            text += fmt::format("  {} will be deleted permanently. This can't be undone.\n",
                                DisplayText::count(permanent, "item"));
        }
        if (privileged > 0) {
            text += fmt::format("  {}\n", access.remark(privileged));
        }
        for (const auto &command : commands) {
            text += fmt::format("  This command will be run: {}\n", command);
        }
        return text;
    }
};

bool confirmed(const Plan &plan, const std::string &description) {
    const auto answer = ask(fmt::format(
        "\n{}Clean {} ({}){}? [y/N] ", description, DisplayText::count(plan.count, "item"),
        DisplayText::size(plan.bytes),
        plan.permanent > 0 ? fmt::format(", {} of them permanently", plan.permanent) : ""));
    const auto word = Text::lowercased(Text::trimmed(answer));
    return word == "y" || word == "yes";
}

std::string reportText(const CleanReport &report, const OutputStyle &style) {
    if (report.outcomes.empty()) {
        return "Nothing was cleaned.\n";
    }
    std::string text;
    std::size_t titleWidth = 0;
    for (const auto &outcome : report.outcomes) {
        titleWidth = std::max(titleWidth, Text::displayWidth(Text::visible(outcome.title)));
    }
    titleWidth = std::min<std::size_t>(titleWidth, 44);
    for (const auto &outcome : report.outcomes) {
        const bool isFailure = outcome.result.isFailure();
        const auto mark = isFailure ? style.red("✗") : style.green("✓");
        const auto title = Text::middleTruncated(Text::visible(outcome.title), titleWidth);
        text += fmt::format("{} {}  {}  {}\n", mark, DisplayText::leftAligned(title, titleWidth),
                            DisplayText::rightAligned(DisplayText::size(outcome.bytes), 9),
                            DisplayText::result(outcome.result));
    }
    const auto failures = report.failures().size();
    std::string total = fmt::format("Freed {}", DisplayText::size(report.freedBytes()));
    if (report.trashedBytes() > 0) {
        total += fmt::format(", moved {} to the Trash (emptying it frees them)",
                             DisplayText::size(report.trashedBytes()));
    }
    if (failures > 0) {
        total += fmt::format("; {} could not be cleaned", DisplayText::count(failures, "item"));
    }
    return text + "\n" + style.bold(total + ".") + "\n";
}

/// Whether the report could be written. What was cleaned stays cleaned when it could not, so that
/// this must not look like wrong usage, after which nothing was touched.
bool reportWritten(const std::string &text) {
    try {
        write(stdout, text);
        return true;
    } catch (const std::system_error &error) {
        tell(fmt::format("klarbox: clean: the items were cleaned, but the report is lost: {}\n",
                         error.what()));
        return false;
    }
}

} // namespace

int runClean(const CleanOptions &options, Interrupt &interrupt) {
    if (options.trash && options.permanent) {
        throw UsageError("clean: --trash and --permanent exclude each other");
    }
    const bool hasSelection = options.defaultSelection || !options.items.empty();
    if (!canAsk()) {
        if (!hasSelection) {
            throw UsageError("clean: nothing is selected; give --default-selection or --item, or "
                             "run it on a terminal to choose");
        }
        if (!options.yes && !options.dryRun) {
            throw UsageError("clean: there is no terminal to ask on; give --yes to clean without "
                             "being asked");
        }
    }

    const ScanSession session(options.scan);
    const auto mode = options.permanent ? RemovalMode::deletePermanently : RemovalMode::moveToTrash;
    const auto errorStyle = OutputStyle::of(stderr, options.scan.color);
    const auto outputStyle = OutputStyle::of(stdout, options.scan.color);
    ProgressLine progress(errorStyle, errorStyle.isTerminal && !options.scan.noProgress);
    Interrupt::Hook hook(interrupt, [&] { progress.close(); });
    auto scans = session.scan(progress, interrupt.token());
    if (interrupt.wasRequested()) {
        return ExitCode::interrupted;
    }

    // The shell's prompt shall not stand in the line of a question that was not answered.
    hook.replace([] { tell("\n"); });
    scans = hasSelection
                ? Selection::select(std::move(scans), options.defaultSelection, options.items)
                : askForSelection(scans, errorStyle);
    const auto items = Selection::items(scans);
    const auto guard = std::make_shared<SafetyGuard>(session.context().home);
    const PrivilegedAccess access(session.roots(), guard);
    const Plan plan(items, mode);
    const auto description = plan.description(access);

    if (options.dryRun) {
        write(stdout, options.scan.json
                          ? encodeJSON(scanDocument(scans), 2) + "\n"
                          : scanTable(scans, {.style = outputStyle, .isSelection = true}) +
                                description + "Nothing was touched.\n");
        return ExitCode::done;
    }
    if (!items.empty() && !options.yes && !confirmed(plan, description)) {
        write(stderr, "Nothing was touched.\n");
        return ExitCode::done;
    }

    // From here on Ctrl-C lets the item in hand be finished and reported.
    hook.replace([&] {
        progress.close();
        tell("Finishing the item in hand. Ctrl-C again stops at once, without a report.\n");
    });
    interrupt.finishWorkFirst();
    std::vector<FileURL> excluded;
    for (const auto &path : session.context().settings.excludedPaths) {
        excluded.push_back(session.context().expand(path));
    }
    const Cleaner cleaner(guard, std::make_shared<FileSystemRemover>(session.context().home),
                          session.context().environment.runner, access.remover(), excluded);
    const auto report = cleaner.clean(
        items, mode,
        [&](std::int64_t index, std::int64_t total, const std::string &title) {
            progress.show(fmt::format("Cleaning {} of {}: {}", std::min(index + 1, total), total,
                                      Text::visible(title)));
        },
        interrupt.token());
    progress.clear();

    const auto text = options.scan.json ? encodeJSON(cleanDocument(report), 2) + "\n"
                                        : reportText(report, outputStyle);
    const bool isReported = reportWritten(text);
    if (interrupt.wasRequested()) {
        tell(fmt::format(
            "Stopped; {} left as found.\n",
            DisplayText::count(items.size() - report.outcomes.size(), "selected item")));
        return ExitCode::interrupted;
    }
    return isReported && report.failures().empty() ? ExitCode::done : ExitCode::cleaningFailed;
}

} // namespace klarbox
