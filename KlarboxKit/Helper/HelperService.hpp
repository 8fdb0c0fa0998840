#pragma once

#include "KlarboxKit/Helper/KlarboxHelperXPC.hpp"
#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"
#include "KlarboxKit/Helper/PrivilegedRequest.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"

#include <functional>
#include <string>
#include <utility>

namespace klarbox {

/// The object that the helper exports: carries requests out, has each recorded, and answers with
/// the result's JSON. Immutable and shared by all connections; safe from any thread.
class HelperService final : public KlarboxHelperXPC {
public:
    /// Records one handled request. Called from several threads at once.
    using Log = std::function<void(const PrivilegedRequest &, const PrivilegedRemovalResult &)>;

    HelperService(PrivilegedRequestHandler handler, Log log)
        : handler_(std::move(handler)),
          log_(std::move(log)) {}

    void removeItem(const std::string &atPath, const XPCReply &reply,
                    const std::function<bool()> &isCancelled = {}) const override;
    void removeContents(const std::string &ofDirectoryAtPath, const XPCReply &reply,
                        const std::function<bool()> &isCancelled = {}) const override;

private:
    void answer(const PrivilegedRequest &request, const XPCReply &reply,
                const std::function<bool()> &isCancelled) const;

    PrivilegedRequestHandler handler_;
    Log log_;
};

/// The log's line for one handled request: what was asked for which path and how much came of it.
std::string requestSummary(const PrivilegedRequest &request, const PrivilegedRemovalResult &result);

} // namespace klarbox
