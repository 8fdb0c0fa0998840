#include "KlarboxKit/Helper/HelperIdentity.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Code.hpp"

namespace klarbox::HelperIdentity {

namespace {

std::string requirement(std::string_view bundleID) {
    std::string text = "anchor apple generic and identifier \"";
    text += bundleID;
    text += "\" and certificate leaf[subject.OU] = \"";
    text += teamID;
    text += "\"";
    return text;
}

} // namespace

const std::string &appRequirement() {
    static const std::string text = requirement(appBundleID);
    return text;
}

const std::string &helperRequirement() {
    static const std::string text = requirement(helperBundleID);
    return text;
}

bool currentProcessCanUseHelper() {
    try {
        const auto code = Code::ofCurrentProcess();
        const auto required = CodeRequirement::parse(appRequirement());
        return required && code.satisfies(*required, CodeAnchors{});
    } catch (const PlatformError &) {
        return false;
    }
}

} // namespace klarbox::HelperIdentity
