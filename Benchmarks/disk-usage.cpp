// Prints the bytes allocated to all the given paths together.

#include "KlarboxKit/Safety/DiskUsage.hpp"

#include <cinttypes>
#include <cstdio>
#include <vector>

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fputs("usage: disk-usage PATH…\n", stderr);
        return 2;
    }
    std::vector<klarbox::FileURL> urls;
    for (int i = 1; i < argc; ++i) {
        urls.emplace_back(argv[i]);
    }
    std::printf("%" PRId64 "\n", klarbox::DiskUsage::allocatedSize(urls));
    return std::fflush(stdout) == 0 ? 0 : 1;
}
