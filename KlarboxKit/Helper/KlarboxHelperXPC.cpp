#include "KlarboxKit/Helper/KlarboxHelperXPC.hpp"

namespace klarbox {

XPCInterface klarboxHelperInterface(const std::shared_ptr<const KlarboxHelperXPC> &object) {
    return XPCInterface({
        {std::string(KlarboxHelperXPC::removeItemSelector),
         [object](const std::string &path, const XPCReply &reply, const std::function<bool()> &) {
             object->removeItem(path, reply);
         }},
        {std::string(KlarboxHelperXPC::removeContentsSelector),
         [object](const std::string &path, const XPCReply &reply, const std::function<bool()> &) {
             object->removeContents(path, reply);
         }},
    });
}

} // namespace klarbox
