#include "KlarboxCLI/CleanCommand.hpp"

#include "KlarboxApp/Clean/CleanSession.hpp"
#include "KlarboxApp/Clean/Selection.hpp"
#include "KlarboxApp/Documents.hpp"
#include "KlarboxApp/Scan/ScanSession.hpp"
#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/ExitCode.hpp"
#include "KlarboxCLI/Interrupt.hpp"
#include "KlarboxCLI/NumberedChoice.hpp"
#include "KlarboxCLI/ProgressLine.hpp"
#include "KlarboxCLI/ReportTable.hpp"
#include "KlarboxCLI/ScanRemarks.hpp"
#include "KlarboxCLI/ScanTable.hpp"
#include "KlarboxCLI/Terminal.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

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

/// Refuses what could never be done: there must be a selection and a yes, or somebody to ask.
void expectSelectionOrPerson(const CleanOptions &options) {
    if (options.trash && options.permanent) {
        throw UsageError("clean: --trash and --permanent exclude each other");
    }
    if (canAsk()) {
        return;
    }
    if (!options.hasSelection()) {
        throw UsageError("clean: nothing is selected; give --default-selection or --item, or "
                         "run it on a terminal to choose");
    }
    if (!options.yes && !options.dryRun) {
        throw UsageError("clean: there is no terminal to ask on; give --yes to clean without "
                         "being asked");
    }
}

/// Lets the person choose from a numbered list.
Selection::Choice askForSelection(const std::vector<CategoryScan> &scans,
                                  const ScanSession &session, const OutputStyle &style) {
    const auto obstacles = session.obstacles();
    write(stderr, scanTable(scans, {.style = style,
                                    .numbered = true,
                                    .obstacles = &obstacles,
                                    .remarks = scanRemarks(session, scans)}));
    const auto numbered = numberedItems(scans);
    if (numbered.empty()) {
        return {.scans = scans, .notCleanable = {}};
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
        if (const auto numbers = NumberedChoice::parseAnswer(answer, numbered.size(), byDefault)) {
            auto chosen = NumberedChoice::selectNumbers(scans, *numbers);
            auto notCleanable = obstacles.sums(Selection::items(chosen));
            return {.scans = std::move(chosen), .notCleanable = std::move(notCleanable)};
        }
        write(stderr, fmt::format("That is no choice among 1 to {}.\n", numbered.size()));
        instruction.clear();
    }
}

/// A plan in sentences that fit so many columns (0: any number), and what to know about it.
std::string description(const CleanPlan &plan, const std::vector<std::string> &remarks,
                        std::size_t width) {
    auto text = fmt::format("{}, {}, selected.\n", DisplayText::count(plan.items.size(), "item"),
                            DisplayText::size(plan.bytes));
    const auto add = [&](const std::string &sentence) {
        std::string_view lead = "  ";
        const auto room = width == 0 ? 0 : std::max(width, DisplayText::narrowest) - 4;
        for (const auto &line : DisplayText::wrapped(sentence, room)) {
            text += fmt::format("{}{}\n", lead, line);
            lead = "    ";
        }
    };
    if (plan.trashed > 0) {
        add(DisplayText::count(plan.trashed, "item") + " will be moved to the Trash.");
    }
    if (plan.permanent > 0) {
        add(DisplayText::count(plan.permanent, "item") +
            " will be deleted permanently. This can't be undone.");
    }
    if (plan.ofTheSystem > 0) {
        add("Of the system: " + DisplayText::count(plan.ofTheSystem, "item") + ".");
    }
    if (plan.irreplaceable > 0) {
        add("What goes and does not come back by itself: " +
            DisplayText::count(plan.irreplaceable, "item") + ".");
    }
    for (const auto &command : plan.commands) {
        add("This command will be run: " + Text::visible(command.displayString()));
    }
    std::ranges::for_each(remarks, add);
    return text;
}

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
bool confirmed(const CleanPlan &plan, const std::vector<std::string> &remarks, std::size_t width) {
    const bool isGrave = plan.irreplaceable > 0;
    const auto answer = ask(fmt::format(
        "{}Clean {} ({}){}? {} ", description(plan, remarks, width),
        DisplayText::count(plan.items.size(), "item"), DisplayText::size(plan.bytes),
        plan.permanent > 0 ? fmt::format(", {} of them permanently", plan.permanent) : "",
        isGrave ? "Type \"delete\" to go on [no]:" : "[y/N]"));
    const auto word = Text::lowercased(Text::trimmed(answer));
    return isGrave ? word == "delete" : word == "y" || word == "yes";
}

/// What a dry run shows: the document, or the table and the plan.
std::string preview(const CleanOptions &options, const Selection::Choice &selection,
                    const CleanPlan &plan, const std::vector<std::string> &remarks) {
    if (options.scan.json) {
        return encodeJSON(scanDocument(selection.scans), 2) + "\n";
    }
    const auto style = OutputStyle::of(stdout, options.scan.color);
    return scanTable(selection.scans, {.style = style, .isSelection = true}) +
           description(plan, remarks, style.width) + "Nothing was touched.\n";
}

/// Whether the plan may be carried out: whoever is to be asked is asked, and whoever is not is told
/// what cannot be cleaned.
bool isAgreed(const CleanOptions &options, const Selection::Choice &selection,
              const CleanPlan &plan, const std::vector<std::string> &remarks,
              const OutputStyle &style) {
    if (plan.items.empty() || options.yes) {
        for (const auto &remark : remarks) {
            tell(remark + "\n");
        }
        return true;
    }
    // Whoever chose from the table has seen it.
    write(stderr, options.hasSelection()
                      ? scanTable(selection.scans, {.style = style, .isSelection = true})
                      : "\n");
    return confirmed(plan, remarks, style.width);
}

/// The report as text. What was cleaned stays cleaned when there is no report, so that this must
/// not look like wrong usage, after which nothing was touched: false then, and nothing is thrown.
bool isReported(const std::vector<KlarboxItem> &items, const CleanReport &report,
                const ScanOptions &options) noexcept {
    constexpr std::string_view lost = "klarbox: clean: the report of what was done is lost: ";
    try {
        write(stdout, options.json
                          ? encodeJSON(cleanDocument(report), 2) + "\n"
                          : reportTable(items, report, OutputStyle::of(stdout, options.color)));
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
    if (count == 0) {
        return;
    }
    try {
        tell(fmt::format("Stopped; {} left as found.\n",
                         DisplayText::count(count, "selected item")));
    } catch (const std::bad_alloc &) {
        tell("Stopped; what is not reported is left as found.\n");
    }
}

/// Names the item in hand.
Cleaner::Progress shownOn(ProgressLine &line) {
    return [&line](std::int64_t index, std::int64_t total, const std::string &title) {
        try {
            if (index < total) {
                line.show(
                    fmt::format("Cleaning {} of {}: {}", index + 1, total, Text::visible(title)));
            }
        } catch (const std::bad_alloc &) {
            line.clear(); // no line rather than a wrong one
        }
    };
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
    expectSelectionOrPerson(options);
    const ScanSession session(options.scan.request());
    const auto mode = options.permanent ? RemovalMode::deletePermanently : RemovalMode::moveToTrash;
    const auto errorStyle = OutputStyle::of(stderr, options.scan.color);
    // Shared, as a request that ran out of time may be heard of once more after this command's end.
    const auto progress =
        std::make_shared<ProgressLine>(errorStyle, errorStyle.canErase && !options.scan.noProgress);
    Interrupt::Hook hook(interrupt, [&] { progress->close(); });
    auto scans = session.scan([&](const ScanActivity &activity) { progress->show(activity); },
                              interrupt.token());
    progress->clear();
    if (interrupt.wasRequested()) {
        return interrupt.exitCode();
    }

    // The shell's prompt shall not stand in the line of a question that was not answered.
    hook.replace([] { tell("\n"); });
    const auto selection = options.hasSelection()
                               ? Selection::choose(std::move(scans), options.defaultSelection,
                                                   options.items, session.obstacles())
                               : askForSelection(scans, session, errorStyle);
    const CleanSession clean(
        session, CleanPlan(Selection::items(selection.scans), mode, session.obstacles()),
        [progress](std::chrono::seconds elapsed) { progress->remark(helperRemark(elapsed)); });
    const auto &plan = clean.plan();
    const auto remarks = obstacleRemarks(selection.notCleanable);

    if (options.dryRun) {
        write(stdout, preview(options, selection, plan, remarks));
        return ExitCode::done;
    }
    if (!isAgreed(options, selection, plan, remarks, errorStyle)) {
        write(stderr, "Nothing was touched.\n");
        return ExitCode::done;
    }

    // From here on Ctrl-C lets the item in hand be finished and reported.
    hook.replace([&] {
        progress->close();
        tell(
            "Finishing the item in hand. Ctrl-C again stops at once, without a report; a tool that "
            "is running goes on.\n");
    });
    interrupt.finishWorkFirst();
    auto room = roomForReport(plan.items);
    const auto report = clean.run(shownOn(*progress), interrupt.token());
    // From here on something may be gone: nothing ends as if nothing had been touched.
    progress->clear();
    room = {};
    const bool isTold = isReported(plan.items, report, options.scan);
    if (interrupt.wasRequested()) {
        tellLeft(plan.items.size() - report.outcomes.size());
        return interrupt.exitCode();
    }
    const bool isClean = std::ranges::none_of(
        report.outcomes, [](const CleanOutcome &outcome) { return outcome.result.isFailure(); });
    return isTold && isClean ? ExitCode::done : ExitCode::cleaningFailed;
}

} // namespace klarbox
