// demo-world DIR: fills an empty folder with the demo world.

#include "Demo/DemoWorld.hpp"

#include <cstdio>
#include <exception>

#include <fmt/format.h>

int main(int argc, char **argv) {
    if (argc != 2) {
        fmt::print(stderr, "usage: demo-world DIR\n");
        return 2;
    }
    try {
        klarbox::demo::makeDemoWorld(klarbox::FileURL(argv[1], true));
    } catch (const std::exception &error) {
        fmt::print(stderr, "demo-world: {}\n", error.what());
        return 1;
    }
    return 0;
}
