// Replays the fuzz seed corpora and every kept crash input (fuzz/regressions/<target>/) through
// the same property checks the libFuzzer targets run, so a fixed fault stays fixed in every build.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "../../fuzz/checks/CommandLineChecks.hpp"
#include "../../fuzz/checks/JsonChecks.hpp"
#include "../../fuzz/checks/RouterChecks.hpp"

namespace {

namespace fs = std::filesystem;

const fs::path kFuzzDirectory = fs::path(__FILE__).parent_path() / ".." / ".." / "fuzz";

// Feeds every file of corpus/<target> and regressions/<target> to check; returns how many ran.
int replay(const std::string& target, const std::function<std::string(std::string_view)>& check) {
    int replayed = 0;
    for (const char* folder : {"corpus", "regressions"}) {
        const fs::path directory = kFuzzDirectory / folder / target;
        if (!fs::is_directory(directory)) continue;
        for (const auto& entry : fs::directory_iterator(directory)) {
            if (!entry.is_regular_file() || entry.path().filename().string().front() == '.') continue;
            std::ifstream in(entry.path(), std::ios::binary);
            std::ostringstream bytes;
            bytes << in.rdbuf();
            EXPECT_EQ(check(bytes.str()), "") << entry.path();
            ++replayed;
        }
    }
    return replayed;
}

TEST(FuzzRegressionTests, JsonReaderAndWriterInputs) {
    EXPECT_GT(replay("json", sentrova::fuzzcheck::checkJsonInput), 0);
}

TEST(FuzzRegressionTests, CommandLineInputs) {
    EXPECT_GT(replay("commandline", sentrova::fuzzcheck::checkCommandLineInput), 0);
}

TEST(FuzzRegressionTests, RouterInputs) {
    EXPECT_GT(replay("router", sentrova::fuzzcheck::checkRouterInput), 0);
}

} // namespace
