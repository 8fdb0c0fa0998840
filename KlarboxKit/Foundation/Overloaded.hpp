#pragma once

namespace klarbox {

/// Lambdas side by side as one visitor, so that `std::visit` does not compile until every
/// alternative has its reader.
template <typename... Readers>
struct overloaded : Readers... {
    using Readers::operator()...;
};
template <typename... Readers>
overloaded(Readers...) -> overloaded<Readers...>;

} // namespace klarbox
