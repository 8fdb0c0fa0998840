#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <vector>

namespace klarbox {

/// What of a scan's places need not be this person's, and what follows from it.
class ForeignFolders {
public:
    /// Looks at who owns them, and what is mounted, at each question.
    ForeignFolders(FileURL home, FileURL disk);

    /// In which no program is run. Tools are looked for in this user's own home too, which may be
    /// another's all the same.
    std::vector<FileURL> withForeignPrograms() const;

    /// That no link below them may lead out of when their contents are removed: a home that another
    /// user owns, every disk but this machine's own, every volume. Whoever put the links there may
    /// mean no good, and a link that meant a folder of its own disk leads to this machine's. A
    /// person's own home may have its caches on another disk, and is cleaned there.
    std::vector<FileURL> enclosures() const;

private:
    std::vector<FileURL> places() const;

    FileURL home_;
    FileURL disk_;
};

} // namespace klarbox
