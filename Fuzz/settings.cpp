#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view json) {
    tryTo([&] {
        const auto settings = ScanSettings::decode(json);
        require(ScanSettings::decode(settings.encoded()) == settings,
                "what is saved is what was read");
    });
}
