#pragma once

#include "KlarboxKit/Foundation/PropertyList.hpp"

#include <vector>

#include "Fuzz/Target.hpp"

namespace klarbox::fuzz {

/// Asks a list for everything that it has. A small file may stand for many values; no more of them
/// are looked at than keeps a run short.
inline void visit(const PropertyList &list) {
    std::vector<PropertyList> waiting{list};
    for (int budget = 20'000; budget > 0 && !waiting.empty(); --budget) {
        const auto value = waiting.back();
        waiting.pop_back();
        using Kind = PropertyList::Kind;
        const auto kind = value.kind();
        require(value.asString().has_value() == (kind == Kind::string), "texts are texts");
        require(value.asData().has_value() == (kind == Kind::data), "data are data");
        require(value.asBoolean().has_value() == (kind == Kind::boolean), "truth values are such");
        require(value.asUID().has_value() == (kind == Kind::uid), "references are references");
        require(!value.asInteger() || kind == Kind::integer, "integers are integers");
        require(!value.asReal() || kind == Kind::real, "reals are reals");
        require(!value.asDate() || kind == Kind::date, "dates are dates");
        for (std::size_t i = 0; i < value.count() && i < 1000; ++i) {
            require(kind != Kind::dictionary || value.find(value.key(i)), "keys are found");
            waiting.push_back(value.at(i));
        }
    }
}

/// Reads a list and looks at all of it.
template <typename Parse>
void readPropertyList(const Parse &parse) {
    tryTo([&] { visit(parse()); });
}

} // namespace klarbox::fuzz
