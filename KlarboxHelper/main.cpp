#include "KlarboxHelper/ListenerDelegate.hpp"
#include "KlarboxHelper/Log.hpp"
#include "KlarboxKit/Helper/HelperIdentity.hpp"
#include "KlarboxKit/Platform/ProcessSecurity.hpp"
#include "KlarboxKit/Platform/XPC.hpp"
#include "KlarboxKit/Platform/XPCListener.hpp"

#include <cstdlib>
#include <exception>

/// Serves until the system stops it. Takes no arguments; says what it has to say to the log.
int main() {
    using namespace klarbox;
    try {
        ProcessSecurity::prepareDaemon();
        UniqueFD lock;
        auto socket = XPC::listen(XPC::serviceSocket(HelperIdentity::machServiceName), lock);
        ListenerDelegate delegate;
        XPCListener listener(std::move(socket), {.clientGroup = ProcessSecurity::groupNamed(
                                                     HelperIdentity::clientGroup)});
        // Only now: the process that verifies peers was to have what this one gives up.
        ProcessSecurity::confineDaemon();
        listener.setDelegate(&delegate);
        XPC::announceReady();
        listener.run();
    } catch (const std::exception &error) {
        Log::connections().log(SystemLog::Level::error, error.what());
    }
    // Reached only when there is nothing to listen on.
    return EXIT_FAILURE;
}
