#include "KlarboxCLI/CleanCommand.hpp"

#include "KlarboxCLI/CleanObstacles.hpp"
#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/PrivilegedAccess.hpp"
#include "KlarboxCLI/ProgressLine.hpp"
#include "KlarboxCLI/ReportTable.hpp"
#include "KlarboxCLI/ScanDocument.hpp"
#include "KlarboxCLI/ScanSession.hpp"
#include "KlarboxCLI/ScanTable.hpp"
#include "KlarboxCLI/Selection.hpp"
#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Platform/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Whether questions can be asked: they go to standard error, answers come from standard input.
bool canAsk() {
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
}

/// Lets the person choose from a numbered list.
std::vector<CategoryScan> askForSelection(const std::vector<CategoryScan> &scans,
                                          const ScanSession &session, const OutputStyle &style) {
    const auto obstacles = session.obstacles();
    write(stderr, scanTable(scans, {.style = style,
                                    .numbered = true,
                                    .obstacles = &obstacles,
                                    .remarks = session.remarks(scans)}));
    const auto numbered = numberedItems(scans);
    if (numbered.empty()) {
        return scans;
    }
    std::vector<std::size_t> byDefault;
    for (std::size_t i = 0; i < numbered.size(); ++i) {
        if (obstacles.startsOutSelected(*numbered[i])) {
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
    std::size_t trashed = 0;
    /// What goes at once, by a command too, and is not made anew.
    std::size_t irreplaceable = 0;
    std::size_t ofTheSystem = 0;
    std::vector<std::string> commands;
    std::vector<std::string> remarks; ///< about what cannot be cleaned here

    Plan(const std::vector<KlarboxItem> &items, RemovalMode mode, const CleanObstacles &obstacles,
         std::vector<std::string> hints)
        : count(items.size()),
          remarks(std::move(hints)) {
        for (const auto &item : items) {
            if (obstacles.of(item)) {
                continue; // tried, but it promises nothing
            }
            const std::size_t lasting = item.tier == SafetyTier::safe ? 0 : 1;
            bytes = saturatingAdd(bytes, item.size);
            ofTheSystem += item.requiresPrivileges ? 1 : 0;
            if (const auto *command = std::get_if<KlarboxTarget::Command>(&item.target.value())) {
                commands.push_back(Text::visible(command->action.displayString()));
                irreplaceable += lasting;
            } else if (item.requiresPrivileges || mode == RemovalMode::deletePermanently ||
                       item.removalPolicy == RemovalPolicy::permanentOnly) {
                ++permanent;
                irreplaceable += lasting;
            } else {
                ++trashed;
            }
        }
    }

    /// In sentences that fit so many columns (0: any number).
    std::string description(std::size_t width) const {
        auto text = fmt::format("{}, {}, selected.\n", DisplayText::count(count, "item"),
                                DisplayText::size(bytes));
        const auto add = [&](const std::string &sentence) {
            std::string_view lead = "  ";
            const auto room = width == 0 ? 0 : std::max(width, DisplayText::narrowest) - 4;
            for (const auto &line : DisplayText::wrapped(sentence, room)) {
                text += fmt::format("{}{}\n", lead, line);
                lead = "    ";
            }
        };
        if (trashed > 0) {
            add(DisplayText::count(trashed, "item") + " will be moved to the Trash.");
        }
        if (permanent > 0) {
            add(DisplayText::count(permanent, "item") +
                " will be deleted permanently. This can't be undone.");
        }
        if (ofTheSystem > 0) {
            add("Of the system: " + DisplayText::count(ofTheSystem, "item") + ".");
        }
        if (irreplaceable > 0) {
            add("What goes and does not come back by itself: " +
                DisplayText::count(irreplaceable, "item") + ".");
        }
        for (const auto &command : commands) {
            add("This command will be run: " + command);
        }
        std::ranges::for_each(remarks, add);
        return text;
    }
};

/// What the progress line says while the helper works on one request; nothing while that takes no
/// longer than people expect.
std::string helperRemark(std::chrono::seconds elapsed) {
    constexpr auto expected = std::chrono::seconds(3);
    if (elapsed < expected) {
        return "";
    }
    return fmt::format(" · the Klarbox helper is still working ({}:{:02})", elapsed.count() / 60,
                       elapsed.count() % 60);
}

/// Asks. A habit must not be enough for what nobody can bring back.
bool confirmed(const Plan &plan, std::size_t width) {
    const bool isGrave = plan.irreplaceable > 0;
    const auto answer = ask(fmt::format(
        "{}Clean {} ({}){}? {} ", plan.description(width), DisplayText::count(plan.count, "item"),
        DisplayText::size(plan.bytes),
        plan.permanent > 0 ? fmt::format(", {} of them permanently", plan.permanent) : "",
        isGrave ? "Type \"delete\" to go on [no]:" : "[y/N]"));
    const auto word = Text::lowercased(Text::trimmed(answer));
    return isGrave ? word == "delete" : word == "y" || word == "yes";
}

/// The report as text. What was cleaned stays cleaned when there is no report, so that this must
/// not look like wrong usage, after which nothing was touched: false then, and nothing is thrown.
bool isReported(const std::vector<KlarboxItem> &items, const CleanReport &report, bool asJSON,
                const OutputStyle &style) noexcept {
    constexpr std::string_view lost = "klarbox: clean: the report of what was done is lost: ";
    try {
        write(stdout, asJSON ? encodeJSON(cleanDocument(report), 2) + "\n"
                             : reportTable(items, report, style));
        return true;
    } catch (const std::bad_alloc &) {
        tell(lost);
        tell("out of memory\n");
    } catch (const std::exception &error) {
        tell(lost);
        tell(error.what());
        tell("\n");
    }
    return false;
}

/// Says how many items a stop left alone.
void tellLeft(std::size_t count) noexcept {
    try {
        tell(fmt::format("Stopped; {} left as found.\n",
                         DisplayText::count(count, "selected item")));
    } catch (const std::bad_alloc &) {
        tell("Stopped; what is not reported is left as found.\n");
    }
}

/// Memory for the report, held while others use up the rest: as much as its document takes, of
/// which its text is a part.
std::vector<char> roomForReport(const std::vector<KlarboxItem> &items) {
    constexpr std::size_t forEach = 4096;
    std::size_t size = 0;
    for (const auto &item : items) {
        size += forEach + 4 * (item.id.size() + item.title.size());
    }
    std::vector<char> room;
    room.reserve(size);
    return room;
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
    // Shared, as a request that ran out of time may be heard of once more after this command's end.
    const auto progress =
        std::make_shared<ProgressLine>(errorStyle, errorStyle.canErase && !options.scan.noProgress);
    Interrupt::Hook hook(interrupt, [&] { progress->close(); });
    auto scans = session.scan(*progress, interrupt.token());
    if (interrupt.wasRequested()) {
        return interrupt.exitCode();
    }

    // The shell's prompt shall not stand in the line of a question that was not answered.
    hook.replace([] { tell("\n"); });
    const auto obstacles = session.obstacles();
    std::vector<std::string> remarks;
    if (hasSelection) {
        // Told is also what the default would take but cannot.
        remarks = obstacles.remarks(Selection::items(Selection::select(
            scans,
            [&](const auto &item) { return options.defaultSelection && item.isSelectedByDefault; },
            options.items)));
        scans = Selection::select(
            std::move(scans),
            [&](const auto &item) {
                return options.defaultSelection && obstacles.startsOutSelected(item);
            },
            options.items);
    } else {
        scans = askForSelection(scans, session, errorStyle);
        remarks = obstacles.remarks(Selection::items(scans));
    }
    auto items = Selection::items(scans);
    // The Trash is emptied before anything is moved there: nobody was asked about what comes anew.
    std::stable_partition(items.begin(), items.end(), [](const KlarboxItem &item) {
        return item.removalPolicy == RemovalPolicy::permanentOnly && !item.requiresPrivileges;
    });
    const auto guard = std::make_shared<SafetyGuard>(session.context().home, session.enclosures());
    const PrivilegedAccess access(session.roots(), guard, [progress](std::chrono::seconds elapsed) {
        progress->remark(helperRemark(elapsed));
    });
    const Plan plan(items, mode, obstacles, std::move(remarks));

    if (options.dryRun) {
        write(stdout, options.scan.json
                          ? encodeJSON(scanDocument(scans), 2) + "\n"
                          : scanTable(scans, {.style = outputStyle, .isSelection = true}) +
                                plan.description(outputStyle.width) + "Nothing was touched.\n");
        return ExitCode::done;
    }
    if (!items.empty() && !options.yes) {
        // Whoever chose from the table has seen it.
        write(stderr,
              hasSelection ? scanTable(scans, {.style = errorStyle, .isSelection = true}) : "\n");
        if (!confirmed(plan, errorStyle.width)) {
            write(stderr, "Nothing was touched.\n");
            return ExitCode::done;
        }
    } else { // nobody has seen the plan
        for (const auto &remark : plan.remarks) {
            tell(remark + "\n");
        }
    }

    // From here on Ctrl-C lets the item in hand be finished and reported.
    hook.replace([&] {
        progress->close();
        tell(
            "Finishing the item in hand. Ctrl-C again stops at once, without a report; a tool that "
            "is running goes on.\n");
    });
    interrupt.finishWorkFirst();
    const Cleaner cleaner(
        guard, std::make_shared<FileSystemRemover>(session.context().home),
        session.context().environment.runner, access.remover(),
        Exclusions(session.context().home, session.context().settings.excludedPaths));
    const auto show = [&](std::int64_t index, std::int64_t total, const std::string &title) {
        if (index < total) {
            progress->show(
                fmt::format("Cleaning {} of {}: {}", index + 1, total, Text::visible(title)));
        }
    };
    auto room = roomForReport(items);
    const auto report = cleaner.clean(
        items, mode,
        [&](std::int64_t index, std::int64_t total, const std::string &title) {
            try {
                show(index, total, title);
            } catch (const std::bad_alloc &) {
                progress->clear(); // no line rather than a wrong one
            }
        },
        interrupt.token());
    // From here on something may be gone: nothing ends as if nothing had been touched.
    progress->clear();
    room = {};
    const bool isTold = isReported(items, report, options.scan.json, outputStyle);
    if (interrupt.wasRequested()) {
        if (const auto left = items.size() - report.outcomes.size(); left > 0) {
            tellLeft(left);
        }
        return interrupt.exitCode();
    }
    const bool isClean = std::ranges::none_of(
        report.outcomes, [](const CleanOutcome &outcome) { return outcome.result.isFailure(); });
    return isTold && isClean ? ExitCode::done : ExitCode::cleaningFailed;
}

} // namespace klarbox
