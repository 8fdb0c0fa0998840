#include "KlarboxCLI/Application.hpp"

int main(int argc, char **argv) {
    return klarbox::runApplication(argc, argv);
}
