#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Scanners/DockerScanner.hpp"

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view report) {
    require(DockerScanner::parseSystemDF(report).size() <= Text::lines(report).size(),
            "a row gives one type");
}
