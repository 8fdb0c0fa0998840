#include "KlarboxKit/Foundation/PropertyListFormats.hpp"

#include "Fuzz/PropertyListInput.hpp"

void klarbox::fuzz::run(std::string_view bytes) {
    readPropertyList([&] { return PropertyListFormats::parseBinary(bytes); });
}
