#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace klarbox {

/// Lays help out for a terminal of 80 columns: what an option takes by its name alone, descriptions
/// wrapped beside it.
class HelpFormatter final : public CLI::Formatter {
public:
    std::string make_description(const CLI::App *app) const override;
    std::string make_option_opts(const CLI::Option *option) const override;
    std::string make_option_desc(const CLI::Option *option) const override;
};

/// Text for the end of a help page: what `text` says, wrapped, after a heading.
std::string helpSection(const std::string &heading, const std::string &text);

} // namespace klarbox
