// The application's client of the helper without the rest of the application.
//
// usage: helper-client removeItem | removeContents | status EXECUTABLE | wait
// The paths to remove come in lines from standard input, and each result goes out before the next
// is read.

#include "KlarboxApp/Privileged/HelperClient.hpp"
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
            auto service = HelperClient::installedHelper();
            service.patience = std::chrono::seconds(5); // for the one that is made not to answer
            return printHelperStatus(std::cout, helperStatus(FileURL(argv[2]), service));
        }
        const HelperClient client;
        for (std::string path; std::getline(std::cin, path);) {
            const auto request = mode == "removeItem" ? PrivilegedRequest::removeItem(path)
                                                      : PrivilegedRequest::removeContents(path);
            std::cout << client.perform(request).encoded() << std::endl;
        }
        return 0;
    } catch (const std::exception &error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
