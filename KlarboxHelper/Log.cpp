#include "KlarboxHelper/Log.hpp"

#include "KlarboxKit/Helper/HelperIdentity.hpp"

#include <string>

namespace klarbox::Log {

const SystemLog &requests() {
    static const SystemLog log(std::string(HelperIdentity::helperBundleID), "requests");
    return log;
}

const SystemLog &connections() {
    static const SystemLog log(std::string(HelperIdentity::helperBundleID), "connections");
    return log;
}

} // namespace klarbox::Log
