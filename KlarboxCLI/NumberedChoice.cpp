#include "KlarboxCLI/NumberedChoice.hpp"

#include "KlarboxCLI/ScanTable.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <set>

namespace klarbox::NumberedChoice {

namespace {

std::optional<std::size_t> parseNumber(std::string_view text, std::size_t count) {
    std::size_t number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && stop == text.data() + text.size();
    return isWhole && number >= 1 && number <= count ? std::optional(number) : std::nullopt;
}

} // namespace

std::vector<CategoryScan> selectNumbers(const std::vector<CategoryScan> &scans,
                                        const std::vector<std::size_t> &numbers) {
    const auto numbered = numberedItems(scans);
    std::set<const KlarboxItem *> chosen;
    for (const auto number : numbers) {
        chosen.insert(numbered.at(number - 1));
    }
    std::vector<CategoryScan> selected;
    for (const auto &scan : scans) {
        CategoryScan kept{.info = scan.info, .issues = scan.issues};
        std::ranges::copy_if(scan.items, std::back_inserter(kept.items),
                             [&](const KlarboxItem &item) { return chosen.contains(&item); });
        selected.push_back(std::move(kept));
    }
    return selected;
}

std::optional<std::vector<std::size_t>> parseAnswer(std::string_view answer, std::size_t count,
                                                    const std::vector<std::size_t> &byDefault) {
    answer = Text::trimmed(answer);
    if (answer.empty() || answer == "none") {
        return std::vector<std::size_t>{};
    }
    if (answer == "default") {
        return byDefault;
    }
    std::set<std::size_t> numbers;
    if (answer == "all") {
        answer = {};
        for (std::size_t number = 1; number <= count; ++number) {
            numbers.insert(number);
        }
    }
    while (!answer.empty()) {
        const auto end = answer.find_first_of(", \t");
        const auto word = answer.substr(0, end);
        answer = end == std::string_view::npos ? std::string_view{} : answer.substr(end + 1);
        if (word.empty()) {
            continue;
        }
        const auto dash = word.find('-');
        const auto first = parseNumber(word.substr(0, dash), count);
        const auto last =
            dash == std::string_view::npos ? first : parseNumber(word.substr(dash + 1), count);
        if (!first || !last || *first > *last) {
            return std::nullopt;
        }
        for (auto number = *first; number <= *last; ++number) {
            numbers.insert(number);
        }
    }
    return std::vector(numbers.begin(), numbers.end());
}

} // namespace klarbox::NumberedChoice
