// The application's client of the helper without the rest of the application.
//
// usage: helper-client removeItem PATH… | removeContents PATH… | status EXECUTABLE | wait

#include "KlarboxCLI/HelperClient.hpp"
#include "KlarboxCLI/HelperCommand.hpp"
#include "KlarboxKit/Platform/ProcessSecurity.hpp"

#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>

int main(int argc, char **argv) {
    using namespace klarbox;
    const std::string_view mode = argc > 1 ? argv[1] : "";
    try {
        ProcessSecurity::setGroupAside();
        if (mode == "wait") {
            for (;;) {
                ::pause();
            }
        }
        if (mode == "status") {
            return printHelperStatus(
                std::cout, helperStatus(FileURL(argv[2]), HelperClient::installedHelper()));
        }
        const HelperClient client;
        for (int i = 2; i < argc; ++i) {
            const auto request = mode == "removeItem" ? PrivilegedRequest::removeItem(argv[i])
                                                      : PrivilegedRequest::removeContents(argv[i]);
            std::cout << client.perform(request).encoded() << '\n';
        }
        return 0;
    } catch (const std::exception &error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
