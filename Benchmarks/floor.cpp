// Adds up the space of one tree with the system calls that no tool can do without, on all cores,
// and does nothing else: every folder is opened, listed and closed, every entry is looked at. It
// knows no hard links, no mounts and no bounds. To be measured against; its figure is nobody's
// size.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t lotSize = 32 * 1024;

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "floor: %s: %s\n", what, std::strerror(errno));
    std::exit(1); // NOLINT(concurrency-mt-unsafe): whatever else runs has nothing to lose
}

class Walker {
public:
    std::int64_t blocks = 0;

    /// Looks at everything in an open folder, closes it, and calls `onFolder` with the name of each
    /// folder in it.
    template <typename OnFolder>
    void list(int folder, OnFolder onFolder) {
        if (buffers_.size() == depth_) {
            buffers_.push_back(std::make_unique_for_overwrite<char[]>(lotSize));
        }
        char *const lot = buffers_[depth_++].get();
        ssize_t filled = 0;
        bool isLast = false; // an entry at the greatest position has none after it
        while (!isLast && (filled = ::getdents64(folder, lot, lotSize)) > 0) {
            for (ssize_t at = 0; at < filled;) {
                const auto *entry = reinterpret_cast<const dirent64 *>(lot + at);
                at += entry->d_reclen;
                isLast = entry->d_off == std::numeric_limits<decltype(entry->d_off)>::max();
                const char *name = entry->d_name;
                if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
                    continue;
                }
                struct stat status;
                if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
                    fail(name);
                }
                blocks += status.st_blocks;
                if (S_ISDIR(status.st_mode)) {
                    onFolder(folder, name);
                }
            }
        }
        ::close(folder);
        --depth_;
    }

    void walk(int parent, const char *name) {
        const int folder = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (folder < 0) {
            fail(name);
        }
        list(folder, [this](int at, const char *below) { walk(at, below); });
    }

private:
    std::vector<std::unique_ptr<char[]>> buffers_; ///< one for each folder on the way
    std::size_t depth_ = 0;
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fputs("usage: floor FOLDER\n", stderr);
        return 2;
    }
    const std::size_t cores = std::max(std::thread::hardware_concurrency(), 1U);
    Walker first;
    // Folders are listed one after another until there are enough of them to be shared out; which
    // core takes which is then decided by a counter, the least that it can be decided by.
    std::deque<std::string> folders{argv[1]};
    while (!folders.empty() && folders.size() < 64 * cores) {
        const auto path = std::move(folders.front());
        folders.pop_front();
        const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (folder < 0) {
            fail(path.c_str());
        }
        first.list(folder, [&](int, const char *name) { folders.push_back(path + "/" + name); });
    }
    std::atomic<std::size_t> next = 0;
    std::atomic<std::int64_t> blocks = 0;
    const auto work = [&](Walker &walker) {
        for (std::size_t index = next++; index < folders.size(); index = next++) {
            walker.walk(AT_FDCWD, folders[index].c_str());
        }
        blocks += walker.blocks;
    };
    {
        std::vector<std::jthread> others;
        if (!folders.empty()) {
            for (std::size_t core = 1; core < cores; ++core) {
                others.emplace_back([&] {
                    Walker walker;
                    work(walker);
                });
            }
        }
        work(first);
    }
    std::printf("%" PRId64 "\n", blocks * 512);
    return 0;
}
