#include "Tests/EndToEnd/World.hpp"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string removeItem = "removeItemAtPath:withReply:";
const std::string removeContents = "removeContentsOfDirectoryAtPath:withReply:";

class Helper : public EndToEnd {
protected:
    /// What the program gets for asking to remove a new file: 0 served, 3 refused. Checks that the
    /// file went exactly when the program was served.
    int askAs(const std::string &program) {
        const std::string victim = "/Library/Caches/victim";
        writeFile(victim, "x");
        const auto outcome = run({.arguments = {program, "ask", removeItem, victim}});
        EXPECT_EQ(exists(victim), outcome.exitCode != 0) << program << outcome.out << outcome.err;
        return outcome.exitCode;
    }
};

TEST_F(Helper, servesTheSignedApplicationAndNobodyElse) {
    startHelper();
    const auto unsignedClient = install("packet-client", "unsigned");
    EXPECT_EQ(askAs(unsignedClient), 3);
    EXPECT_EQ(askAs(application_), 0);
}

} // namespace
} // namespace klarbox::test
