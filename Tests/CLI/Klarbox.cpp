#include "Tests/CLI/Klarbox.hpp"

#include <array>
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox::test {

namespace {

/// Opened at the start: an ordinary user may not get to where it was built.
const int program = ::open(KLARBOX_PROGRAM, O_PATH);

} // namespace

Launch klarboxIn(const FileURL &home, const std::string &arguments) {
    return {.arguments = {"/bin/sh", "-c",
                          fmt::format("cd {} && exec /proc/self/fd/{} {}", home.path(), program,
                                      arguments)},
            .environment = {"HOME=" + home.path(), "TERM=xterm-256color"}};
}

Outcome runKlarbox(const FileURL &home, const std::string &arguments) {
    return run(klarboxIn(home, arguments));
}

Outcome runKlarboxOnTerminal(const FileURL &home, const std::string &arguments,
                             const std::vector<std::string> &answers, int columns,
                             const std::string &early) {
    auto launch = klarboxIn(home, arguments);
    const winsize size{.ws_row = 25,
                       .ws_col = static_cast<unsigned short>(columns),
                       .ws_xpixel = 0,
                       .ws_ypixel = 0};
    int terminal = -1;
    check(::openpty(&terminal, &launch.terminal, nullptr, nullptr, &size) == 0, "openpty");
    const UniqueFD owner(terminal);
    Running klarbox(launch);
    ::close(launch.terminal);
    const auto type = [&](const std::string &keys) {
        check(::write(terminal, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size()),
              "typing");
    };
    type(early);
    auto answer = answers.begin();
    std::string shown;
    std::array<char, 4096> buffer{};
    // A terminal whose other side is gone says EIO.
    for (ssize_t got = 0; (got = ::read(terminal, buffer.data(), buffer.size())) > 0;) {
        shown.append(buffer.data(), static_cast<std::size_t>(got));
        if (answer != answers.end() && (shown.ends_with("]: ") || shown.ends_with("[y/N] "))) {
            type(*answer++);
        }
    }
    auto outcome = klarbox.finish();
    outcome.out = std::move(shown);
    return outcome;
}

void addBrew(const TemporaryTree &tree, const std::string &cases) {
    tree.add({"brew", text("#!/bin/sh\ncase \"$*\" in\n" + cases + "\nesac\n"), {}, 0755});
    const nlohmann::json environment{{"tools", {{"brew", (tree / "brew").path()}}}};
    tree.add({"environment.json", text(environment.dump())});
}

std::string itemIDs(const nlohmann::json &document, const std::string &prefix) {
    std::string lines;
    for (const auto &category : document.at("categories")) {
        for (const auto &item : category.at("items")) {
            auto id = item.at("id").get<std::string>();
            if (const auto at = id.find(prefix); at != std::string::npos) {
                id.erase(at, prefix.size());
            }
            lines += id + "\n";
        }
    }
    return lines;
}

} // namespace klarbox::test
