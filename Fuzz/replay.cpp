// Runs a fuzz target once for every file of the folders that it is given: what a fuzzer found
// before must not come back, whichever compiler is at hand.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Fuzz/Target.hpp"

int main(int count, char **arguments) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    for (int i = 1; i < count; ++i) {
        for (const auto &entry : fs::directory_iterator(arguments[i])) {
            files.push_back(entry.path());
        }
    }
    std::ranges::sort(files);
    for (const auto &file : files) {
        std::fprintf(stderr, "%s\n", file.c_str()); // so that a crash tells its input
        std::ifstream stream(file, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), {});
        // With no room to spare sanitizers see every byte read beyond the input.
        bytes.shrink_to_fit();
        klarbox::fuzz::run({bytes.data(), bytes.size()});
    }
    return files.empty() ? 1 : 0;
}
