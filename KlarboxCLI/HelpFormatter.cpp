#include "KlarboxCLI/HelpFormatter.hpp"

#include "KlarboxCLI/DisplayText.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

constexpr std::size_t pageWidth = 80;

} // namespace

std::string HelpFormatter::make_description(const CLI::App *app) const {
    return app->get_description() + ".\n\n";
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const {
    return option->get_type_size() == 0 ? "" : " " + option->get_type_name();
}

std::string HelpFormatter::make_option_desc(const CLI::Option *option) const {
    const auto lines =
        DisplayText::wrapped(option->get_description(), pageWidth - get_column_width());
    return fmt::format("{}", fmt::join(lines, "\n"));
}

std::string helpSection(const std::string &heading, const std::string &text) {
    const auto lines = DisplayText::wrapped(text, pageWidth - 2);
    return fmt::format("{}:\n  {}\n", heading, fmt::join(lines, "\n  "));
}

} // namespace klarbox
