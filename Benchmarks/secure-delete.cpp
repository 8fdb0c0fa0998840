// Deletes what its arguments name, as the helper does. To be timed against rm -rf.
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include <exception>
#include <filesystem>
#include <iostream>

int main(int argc, char **argv) {
    int status = 0;
    for (int index = 1; index < argc; ++index) {
        try {
            const auto path = std::filesystem::absolute(argv[index]);
            klarbox::SecureDeleter().deletePermanently(klarbox::FileURL(path.native()));
        } catch (const std::exception &error) {
            std::cerr << "secure-delete: " << argv[index] << ": " << error.what() << '\n';
            status = 1;
        }
    }
    return status;
}
