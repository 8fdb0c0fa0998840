#pragma once

#include "KlarboxKit/Platform/XPC.hpp"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace klarbox {

/// What the helper offers to the application: two messages and no more.
class KlarboxHelperXPC {
public:
    static constexpr std::string_view removeItemSelector = "removeItemAtPath:withReply:";
    static constexpr std::string_view removeContentsSelector =
        "removeContentsOfDirectoryAtPath:withReply:";

    virtual ~KlarboxHelperXPC() = default;

    /// Both call `reply` exactly once, before they return, with the JSON of a
    /// `PrivilegedRemovalResult`. Once `isCancelled` (empty: never) answers yes they remove nothing
    /// more. Called from several threads at once.
    virtual void removeItem(const std::string &atPath, const XPCReply &reply,
                            const std::function<bool()> &isCancelled = {}) const = 0;
    virtual void removeContents(const std::string &ofDirectoryAtPath, const XPCReply &reply,
                                const std::function<bool()> &isCancelled = {}) const = 0;
};

/// The interface through which an object is exported to the application.
XPCInterface klarboxHelperInterface(const std::shared_ptr<const KlarboxHelperXPC> &object);

} // namespace klarbox
