#include "KlarboxKit/Scanning/Exclusions.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <algorithm>

namespace klarbox {

namespace {

/// So many entries are listed to answer one question; a tree of more counts as holding a match.
constexpr std::size_t mostListed = 1'000'000;

constexpr std::string_view anyDepthName = "**";

std::vector<std::string> split(std::string_view path) {
    std::vector<std::string> parts;
    while (!path.empty()) {
        const auto slash = std::min(path.find('/'), path.size());
        if (slash > 0) {
            parts.emplace_back(path.substr(0, slash));
        }
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    return parts;
}

bool isEscape(std::string_view text, std::size_t at) {
    return text[at] == '\\' && at + 1 < text.size() &&
           std::string_view("*?\\").find(text[at + 1]) != std::string_view::npos;
}

bool isWild(std::string_view component) {
    for (std::size_t i = 0; i < component.size(); ++i) {
        if (isEscape(component, i)) {
            ++i;
        } else if (component[i] == '*' || component[i] == '?') {
            return true;
        }
    }
    return false;
}

std::string unescaped(std::string_view component) {
    std::string plain;
    for (std::size_t i = 0; i < component.size(); ++i) {
        i += isEscape(component, i) ? 1 : 0;
        plain += component[i];
    }
    return plain;
}

std::string escaped(std::string_view path) {
    std::string text;
    for (const char c : path) {
        if (c == '*' || c == '?' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    return text;
}

/// Past the character at `at`, which may be several bytes.
std::size_t next(std::string_view text, std::size_t at) {
    do {
        ++at;
    } while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U);
    return at;
}

/// Goes back to the last star only, so the time stays within the product of the lengths.
bool matches(std::string_view glob, std::string_view name) {
    std::size_t g = 0;
    std::size_t n = 0;
    auto star = std::string_view::npos;
    std::size_t resume = 0;
    while (n < name.size()) {
        if (g < glob.size() && glob[g] == '*') {
            star = g++;
            resume = n;
        } else if (g < glob.size() && glob[g] == '?') {
            ++g;
            n = next(name, n);
        } else if (const auto literal = g < glob.size() && isEscape(glob, g) ? g + 1 : g;
                   literal < glob.size() && glob[literal] == name[n]) {
            g = literal + 1;
            ++n;
        } else if (star != std::string_view::npos) {
            g = star + 1;
            n = resume = next(name, resume);
        } else {
            return false;
        }
    }
    return glob.find_first_not_of('*', g) == std::string_view::npos;
}

/// The components of an absolute entry, "." and ".." folded away.
std::vector<std::string> patternOf(std::string_view entry) {
    return split(FileURL("/").appending(entry).standardized().path());
}

/// The entry as an absolute pattern. A home may have wildcards in its own name, which mean
/// themselves; ".." in the entry may lead out of it.
std::vector<std::string> patternOf(std::string_view entry, const FileURL &home) {
    if (entry == "~" || entry.starts_with("~/")) {
        return patternOf(escaped(home.path()) + std::string(entry.substr(1)));
    }
    return entry.starts_with('/')
               ? patternOf(entry)
               : patternOf(escaped(FileURL(".").path()) + "/" + std::string(entry));
}

} // namespace

Exclusions::Exclusions(const FileURL &home, std::span<const std::string> entries) {
    LinkMemo links;
    for (const auto &entry : entries) {
        if (entry.starts_with(categoryPrefix)) {
            categories_.push_back(entry.substr(categoryPrefix.size()));
            continue;
        }
        const auto pattern = patternOf(entry, home);
        const auto wild = std::ranges::find_if(pattern, isWild);
        std::string path;
        for (auto at = pattern.begin(); at != wild; ++at) {
            path += "/" + unescaped(*at);
        }
        const FileURL plain(path.empty() ? "/" : path);
        const std::vector<std::string> rest(wild, pattern.end());
        insert(plain, rest);
        insert(links.resolved(plain, true), rest);
        insert(links.resolved(plain, false), rest); // for a link: where the link itself really is
    }
}

void Exclusions::insert(const FileURL &base, std::span<const std::string> pattern) {
    std::size_t at = 0;
    nodes_[at].leadsToPlain |= pattern.empty();
    for (const auto &name : split(base.path())) {
        const auto [child, isNew] =
            nodes_[at].names.try_emplace(Text::caseFolded(name), nodes_.size());
        at = child->second;
        if (isNew) {
            nodes_.emplace_back();
        }
        nodes_[at].leadsToPlain |= pattern.empty();
    }
    for (const auto &component : pattern) {
        at = childFor(at, component);
    }
    nodes_[at].isMember = true;
}

std::size_t Exclusions::childFor(std::size_t node, const std::string &component) {
    auto &from = nodes_[node];
    const auto place = nodes_.size();
    if (component == anyDepthName) {
        if (from.loops) {
            return node; // twice is once
        }
        if (from.anyDepth != 0) {
            return from.anyDepth;
        }
        from.anyDepth = place;
    } else if (isWild(component)) {
        const auto glob = Text::caseFolded(component);
        for (const auto &[known, child] : from.globs) {
            if (known == glob) {
                return child;
            }
        }
        from.globs.emplace_back(glob, place);
    } else {
        const auto [child, isNew] =
            from.names.try_emplace(Text::caseFolded(unescaped(component)), place);
        if (!isNew) {
            return child->second;
        }
    }
    nodes_.emplace_back().loops = component == anyDepthName;
    return place;
}

void Exclusions::enter(std::size_t node, Cursor &cursor) const {
    while (std::ranges::find(cursor.states_, node) == cursor.states_.end()) {
        cursor.states_.push_back(node);
        cursor.isCovered_ |= nodes_[node].isMember;
        if (nodes_[node].anyDepth == 0) {
            return;
        }
        node = nodes_[node].anyDepth;
    }
}

Exclusions::Cursor Exclusions::at(const FileURL &location) const {
    Cursor cursor(*this, FileURL("/"));
    enter(0, cursor);
    for (const auto &name : split(location.standardized().path())) {
        cursor = cursor.child(name);
    }
    return cursor;
}

Exclusions::Cursor Exclusions::Cursor::child(std::string_view name) const {
    Cursor below(*owner_,
                 place_.path() == "/" ? FileURL("/" + std::string(name)) : place_.appending(name));
    below.isCovered_ = isCovered_;
    if (isCovered_ || states_.empty()) {
        return below;
    }
    const auto folded = Text::caseFolded(name);
    for (const auto state : states_) {
        const auto &node = owner_->nodes_[state];
        if (node.loops) {
            owner_->enter(state, below);
        }
        if (const auto found = node.names.find(folded); found != node.names.end()) {
            owner_->enter(found->second, below);
        }
        for (const auto &[glob, next] : node.globs) {
            if (matches(glob, folded)) {
                owner_->enter(next, below);
            }
        }
    }
    return below;
}

bool Exclusions::Cursor::isTouched() const {
    const auto leadsToPlain = [&](std::size_t state) { return owner_->nodes_[state].leadsToPlain; };
    return isCovered_ || std::ranges::any_of(states_, leadsToPlain) || owner_->matchesBelow(*this);
}

/// Looks along the patterns for what they match, in a list and not by recursion: trees are deep.
bool Exclusions::matchesBelow(const Cursor &cursor) const {
    std::vector<Cursor> open;
    const auto consider = [&](Cursor at) {
        if (!at.states_.empty() &&
            FileManager::type(at.place_) == FileManager::FileType::directory) {
            open.push_back(std::move(at));
        }
    };
    consider(cursor);
    for (std::size_t listed = 0; !open.empty();) {
        const auto folder = std::move(open.back());
        open.pop_back();
        try {
            for (const auto &entry : FileManager::entriesOfDirectory(folder.place_)) {
                auto at = folder.child(entry.name);
                if (at.isCovered_ || ++listed > mostListed) {
                    return true;
                }
                if (entry.type.value_or(FileManager::FileType::directory) ==
                    FileManager::FileType::directory) {
                    consider(std::move(at));
                }
            }
        } catch (const PlatformError &) {
            return true; // what cannot be seen may be what is to be kept
        }
    }
    return false;
}

bool Exclusions::excludesCategory(std::string_view id) const {
    return std::ranges::find(categories_, id) != categories_.end();
}

bool Exclusions::isEverything(const FileURL &home, std::string_view entry) {
    return std::ranges::all_of(patternOf(entry, home), [](const auto &component) {
        return component.find_first_not_of('*') == std::string::npos;
    });
}

bool Exclusions::matchesAnything(const FileURL &home, const std::string &entry) {
    const Exclusions alone(home, {&entry, 1});
    const auto pattern = patternOf(entry, home);
    if (std::ranges::any_of(pattern, isWild)) {
        return alone.matchesBelow(alone.at(FileURL("/")));
    }
    std::string path;
    for (const auto &component : pattern) {
        path += "/" + unescaped(component);
    }
    try {
        return FileManager::facts(FileURL(path.empty() ? "/" : path)).has_value();
    } catch (const PlatformError &) {
        return true; // it may be there
    }
}

LinkMemo::Place LinkMemo::step(const Place &parent, std::string_view name) {
    const auto path = parent.real + "/" + std::string(name);
    const auto type = FileManager::type(FileURL(path));
    if (type != FileManager::FileType::symbolicLink) {
        return {path, type.has_value()};
    }
    const auto real = FileManager::realPath(path);
    return {real ? (*real == "/" ? "" : *real) : path, real.has_value()};
}

FileURL LinkMemo::resolved(const FileURL &url, bool followsLast) {
    const auto standard = url.standardized();
    const std::string_view path = standard.path();
    Place at{"", true};
    for (std::size_t begin = 1; begin < path.size();) {
        const auto end = std::min(path.find('/', begin), path.size());
        if (!at.exists || (end == path.size() && !followsLast)) {
            return FileURL(at.real + std::string(path.substr(begin - 1)));
        }
        const auto name = path.substr(begin, end - begin);
        const auto folder = path.substr(0, end);
        if (end == path.size()) {
            at = step(at, name);
        } else if (const auto known = folders_.find(folder); known != folders_.end()) {
            at = known->second;
        } else {
            at = folders_.emplace(std::string(folder), step(at, name)).first->second;
        }
        begin = end + 1;
    }
    return FileURL(at.real.empty() ? "/" : at.real);
}

} // namespace klarbox
