#include "KlarboxKit/Walking/Walk.hpp"

#include "KlarboxKit/Walking/WalkerPool.hpp"

#include <utility>

namespace klarbox {

void Walk::getHelp(std::size_t threads) {
    isShared_ = true;
    WalkerPool::shared().invite(threads);
}

bool Walk::wantsShare() const {
    return isShared_ && WalkerPool::shared().wants(*this);
}

FirstFailure Walk::run(WalkedFolder given) {
    return WalkerPool::shared().run(*this, std::move(given));
}

} // namespace klarbox
