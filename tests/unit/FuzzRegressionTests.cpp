// Replays the fuzz seed corpora and every kept crash input (fuzz/regressions/<target>/) through
// the same property checks the libFuzzer targets run, so a fixed fault stays fixed in every build.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "../../fuzz/checks/JsonChecks.hpp"
#include "../../fuzz/checks/RouterChecks.hpp"

namespace {

// Feeds every file of corpus/<target> and regressions/<target> to check; returns how many ran.
template <typename Check> int replay(const std::string& target, Check check) {
    int replayed = 0;
    for (const char* folder : {"corpus", "regressions"}) {
        const auto directory = std::filesystem::path(__FILE__).parent_path() / "../../fuzz" / folder / target;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            if (entry.path().filename().string().front() == '.') continue;
            std::ostringstream bytes;
            bytes << std::ifstream(entry.path(), std::ios::binary).rdbuf();
            EXPECT_EQ(check(bytes.str()), "") << entry.path();
            ++replayed;
        }
    }
    return replayed;
}

TEST(FuzzRegressionTests, JsonReaderAndWriterInputs) { EXPECT_GT(replay("json", sentrova::fuzzcheck::checkJsonInput), 0); }
TEST(FuzzRegressionTests, RouterInputs) { EXPECT_GT(replay("router", sentrova::fuzzcheck::checkRouterInput), 0); }

} // namespace
