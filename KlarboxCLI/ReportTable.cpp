#include "KlarboxCLI/ReportTable.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <map>
#include <string_view>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr std::size_t markWidth = 1;
constexpr std::size_t sizeWidth = 9;
constexpr std::size_t gap = 2;
constexpr std::size_t narrowestResult = 24;
constexpr std::size_t indent = 4;

/// What each item is called: its title, or where it is when others have that title.
std::vector<std::string> namesOf(const std::vector<KlarboxItem> &items) {
    std::map<std::string_view, int> titles;
    for (const auto &item : items) {
        ++titles[item.title];
    }
    std::vector<std::string> names;
    names.reserve(items.size());
    for (const auto &item : items) {
        names.push_back(
            Text::visible(titles[item.title] > 1 ? item.detail.value_or(item.id) : item.title));
    }
    return names;
}

std::string total(const CleanReport &report) {
    auto text = fmt::format("Freed {}", DisplayText::size(report.freedBytes()));
    if (report.trashedBytes() > 0) {
        text += fmt::format(", moved {} to the Trash (emptying it frees them)",
                            DisplayText::size(report.trashedBytes()));
    }
    if (const auto failures = report.failures().size(); failures > 0) {
        text += fmt::format("; {} could not be cleaned", DisplayText::count(failures, "item"));
    }
    return text + ".";
}

} // namespace

std::string reportTable(const std::vector<KlarboxItem> &items, const CleanReport &report,
                        const OutputStyle &style) {
    if (report.outcomes.empty()) {
        return "Nothing was cleaned.\n";
    }
    const auto names = namesOf(items);
    std::size_t nameWidth = 0;
    for (const auto &name : names) {
        nameWidth = std::max(nameWidth, Text::displayWidth(name));
    }
    const auto width = style.width == 0 ? 0 : std::max(style.width, DisplayText::narrowest);
    const bool isBeside = width == 0 || width >= DisplayText::narrowestTable;
    const auto besideName = markWidth + 1 + gap + sizeWidth + (isBeside ? gap : 0);
    if (width > 0) {
        nameWidth = std::min(nameWidth, width - besideName - (isBeside ? narrowestResult : 0));
    }
    const auto column = isBeside ? besideName + nameWidth : indent;
    const auto newLine = "\n" + std::string(column, ' ');

    std::string text;
    for (std::size_t i = 0; i < report.outcomes.size(); ++i) {
        const auto &outcome = report.outcomes[i];
        const auto mark = outcome.result.isFailure() ? style.red("✗") : style.green("✓");
        const auto name = Text::middleTruncated(names[i], nameWidth);
        text += mark + " " + DisplayText::leftAligned(name, nameWidth) + std::string(gap, ' ') +
                DisplayText::rightAligned(DisplayText::size(outcome.bytes), sizeWidth);
        auto lead = isBeside ? std::string(gap, ' ') : newLine;
        for (const auto &piece : DisplayText::wrapped(DisplayText::result(outcome.result),
                                                      width == 0 ? 0 : width - column)) {
            text += lead + piece;
            lead = newLine;
        }
        text += "\n";
    }
    for (const auto &piece : DisplayText::wrapped(total(report), width)) {
        text += "\n" + style.bold(piece);
    }
    return text + "\n";
}

} // namespace klarbox
