#include "KlarboxKit/Helper/KlarboxHelperXPC.hpp"

namespace klarbox {

XPCInterface klarboxHelperInterface(const std::shared_ptr<const KlarboxHelperXPC> &object) {
    return XPCInterface({
        {std::string(KlarboxHelperXPC::removeItemSelector),
         [object](const std::string &path, const XPCReply &reply, const auto &isCancelled) {
             object->removeItem(path, reply, isCancelled);
         }},
        {std::string(KlarboxHelperXPC::removeContentsSelector),
         [object](const std::string &path, const XPCReply &reply, const auto &isCancelled) {
             object->removeContents(path, reply, isCancelled);
         }},
    });
}

} // namespace klarbox
