// Everything that is no binary list: byte-order marks and encodings, then XML or the old format.

#include "Fuzz/PropertyListInput.hpp"

void klarbox::fuzz::run(std::string_view bytes) {
    readPropertyList([&] { return PropertyList::parse(bytes); });
}
