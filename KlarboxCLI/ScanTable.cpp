#include "KlarboxCLI/ScanTable.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr std::size_t markWidth = 3;
constexpr std::size_t sizeWidth = 9;
constexpr std::size_t tierWidth = 8;
constexpr std::size_t gap = 2;
constexpr std::size_t widestTitle = 44;
constexpr std::string_view ofTheSystem = "Belongs to the system; removed permanently.";

std::vector<const KlarboxItem *> largestFirst(const CategoryScan &scan) {
    std::vector<const KlarboxItem *> items;
    for (const auto &item : scan.items) {
        items.push_back(&item);
    }
    std::ranges::stable_sort(items, std::greater{}, [](const auto *item) { return item->size; });
    return items;
}

class TableWriter {
public:
    TableWriter(const std::vector<CategoryScan> &scans, const ScanTableOptions &options)
        : scans_(scans),
          style_(options.style),
          isSelection_(options.isSelection),
          obstacles_(options.obstacles),
          remarks_(options.remarks),
          width_(style_.width == 0 ? 0 : std::max(style_.width, DisplayText::narrowest)) {
        const auto total = numberedItems(scans).size();
        numberWidth_ = options.numbered ? std::to_string(total).size() + gap : 0;
        for (const auto &scan : scans) {
            for (const auto &item : scan.items) {
                titleWidth_ = std::max(titleWidth_, Text::displayWidth(Text::visible(item.title)));
            }
        }
        titleWidth_ = std::min(titleWidth_, widestTitle);
        if (width_ != 0 && !isNarrow()) {
            titleWidth_ = std::min(titleWidth_, (width_ - textColumn()) / 2);
        }
    }

    std::string write() {
        std::optional<ScanSection> section;
        std::string empty;
        for (const auto &scan : scans_) {
            if (scan.items.empty() && (scan.issues.empty() || isSelection_)) {
                empty += (empty.empty() ? "" : ", ") + scan.info.title;
                continue;
            }
            if (section != scan.info.section) {
                section = scan.info.section;
                line(style_.bold(DisplayText::section(*section)));
                line("");
            }
            writeCategory(scan);
        }
        if (!empty.empty() && !isSelection_) {
            paragraph("Nothing to clean in: " + empty + ".", 0);
            line("");
        }
        if (!isSelection_) {
            writeTotal();
        }
        writeRemarks();
        return std::move(text_);
    }

private:
    bool isNarrow() const { return width_ != 0 && width_ < DisplayText::narrowestTable; }

    /// Where rows begin.
    std::size_t margin() const { return isNarrow() ? 0 : gap; }

    /// Where titles, details and notes begin.
    std::size_t textColumn() const {
        if (isNarrow()) {
            return numberWidth_ + gap;
        }
        return gap + numberWidth_ + markWidth + gap + sizeWidth + gap + tierWidth + gap;
    }

    void line(std::string_view content) { text_.append(content).append("\n"); }

    void paragraph(std::string_view content, std::size_t indent) {
        const auto room = width_ == 0 ? 0 : width_ - indent;
        for (const auto &piece : DisplayText::wrapped(content, room)) {
            line(std::string(indent, ' ') + style_.dim(piece));
        }
    }

    void writeCategory(const CategoryScan &scan) {
        writeHeading(scan);
        // Said once where it holds for all.
        const bool allOfTheSystem =
            !scan.items.empty() &&
            std::ranges::all_of(scan.items, &KlarboxItem::requiresPrivileges);
        if (allOfTheSystem) {
            paragraph(ofTheSystem, gap);
        }
        for (const auto *item : largestFirst(scan)) {
            writeItem(*item, item->requiresPrivileges && !allOfTheSystem);
        }
        for (const auto &issue : scan.issues) {
            const auto room = width_ == 0 ? 0 : width_ - 4;
            std::string_view lead = "  ! ";
            for (const auto &piece : DisplayText::wrapped(DisplayText::issue(issue), room)) {
                line(style_.yellow(std::string(lead) + piece));
                lead = "    ";
            }
        }
        line("");
    }

    void writeHeading(const CategoryScan &scan) {
        const auto &title = scan.info.title;
        if (scan.items.empty()) {
            line(style_.bold(title));
            return;
        }
        const auto sum = fmt::format("{} in {}", DisplayText::size(scan.totalSize()),
                                     DisplayText::count(scan.items.size(), "item"));
        constexpr std::string_view dot = " · ";
        const auto used = Text::displayWidth(title) + Text::displayWidth(dot);
        const bool fits = width_ == 0 || used + Text::displayWidth(sum) <= width_;
        line(style_.bold(title) + (fits ? std::string(dot) + sum : ""));
        if (!fits) {
            line(std::string(gap, ' ') + sum);
        }
    }

    void writeItem(const KlarboxItem &item, bool saysSystem) {
        std::string row(margin(), ' ');
        if (numberWidth_ > 0) {
            row += DisplayText::leftAligned(
                DisplayText::rightAligned(std::to_string(++number_), numberWidth_ - gap),
                numberWidth_);
        }
        row += isSelection_ || startsOutSelected(item) ? style_.green("[x]") : "[ ]";
        row += std::string(gap, ' ');
        row += DisplayText::rightAligned(DisplayText::size(item), sizeWidth);
        row += std::string(gap, ' ');
        const auto tier = DisplayText::leftAligned(DisplayText::tier(item.tier), tierWidth);
        row += item.tier == SafetyTier::review ? style_.yellow(tier) : tier;

        const auto title = Text::visible(item.title);
        auto detail = item.detail ? Text::visible(*item.detail) : std::string();
        if (detail == title) {
            detail.clear();
        }
        if (isNarrow()) {
            line(row);
            indented(title);
            indented(detail);
        } else {
            line(row + std::string(gap, ' ') + titleAndDetail(title, detail));
        }
        if (const auto facts = remarks(item, saysSystem); !facts.empty()) {
            paragraph(facts, textColumn());
        }
    }

    /// The text, cut to one line, below the row of its item.
    void indented(const std::string &text) {
        if (!text.empty()) {
            line(std::string(textColumn(), ' ') +
                 Text::middleTruncated(text, width_ - textColumn()));
        }
    }

    std::string titleAndDetail(const std::string &title, const std::string &detail) const {
        auto shown = width_ == 0 ? title : Text::middleTruncated(title, titleWidth_);
        if (detail.empty()) {
            return shown;
        }
        const auto used = textColumn() + std::max(titleWidth_, Text::displayWidth(shown)) + gap;
        return DisplayText::leftAligned(shown, titleWidth_) + std::string(gap, ' ') +
               style_.dim(width_ == 0 ? detail : Text::middleTruncated(detail, width_ - used));
    }

    /// What a person should know before choosing the item, in sentences.
    static std::string remarks(const KlarboxItem &item, bool saysSystem) {
        std::string sentences = item.note ? Text::visible(*item.note) : "";
        const auto add = [&](std::string_view sentence) {
            sentences += (sentences.empty() ? "" : " ") + std::string(sentence);
        };
        if (saysSystem) {
            add(ofTheSystem);
        }
        if (std::holds_alternative<KlarboxTarget::Command>(item.target.value())) {
            add("Cleaned by the tool's own command.");
        }
        return sentences;
    }

    void writeTotal() {
        std::size_t found = 0;
        std::size_t selected = 0;
        std::int64_t foundBytes = 0;
        std::int64_t selectedBytes = 0;
        for (const auto &scan : scans_) {
            foundBytes = saturatingAdd(foundBytes, scan.totalSize());
            found += scan.items.size();
            for (const auto &item : scan.items) {
                if (startsOutSelected(item)) {
                    ++selected;
                    selectedBytes = saturatingAdd(selectedBytes, item.size);
                }
            }
        }
        if (found == 0) {
            line("Nothing to clean was found.");
            return;
        }
        const auto chosen = fmt::format("{} in {}", DisplayText::size(selectedBytes),
                                        DisplayText::count(selected, "item"));
        const auto total =
            fmt::format("Found {} in {}; {} selected.", DisplayText::size(foundBytes),
                        DisplayText::count(found, "item"), selected == 0 ? "nothing" : chosen);
        for (const auto &piece : DisplayText::wrapped(total, width_)) {
            line(style_.bold(piece));
        }
    }

    void writeRemarks() {
        for (const auto &remark : remarks_) {
            paragraph(remark, 0);
        }
    }

    bool startsOutSelected(const KlarboxItem &item) const {
        return obstacles_ == nullptr ? item.isSelectedByDefault
                                     : obstacles_->startsOutSelected(item);
    }

    const std::vector<CategoryScan> &scans_;
    OutputStyle style_;
    bool isSelection_;
    const CleanObstacles *obstacles_;
    std::vector<std::string> remarks_;
    std::size_t width_;
    std::size_t numberWidth_ = 0;
    std::size_t titleWidth_ = 0;
    std::size_t number_ = 0;
    std::string text_;
};

} // namespace

std::string scanTable(const std::vector<CategoryScan> &scans, const ScanTableOptions &options) {
    return TableWriter(scans, options).write();
}

std::vector<const KlarboxItem *> numberedItems(const std::vector<CategoryScan> &scans) {
    std::vector<const KlarboxItem *> all;
    for (const auto &scan : scans) {
        const auto items = largestFirst(scan);
        all.insert(all.end(), items.begin(), items.end());
    }
    return all;
}

} // namespace klarbox
