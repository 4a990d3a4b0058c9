// The built bridge refuses bad command lines with one exact line on stderr and status 64.

#include <gtest/gtest.h>

#include <filesystem>

#include "BridgeHarness.hpp"

using namespace sentrova::e2e;

namespace {

struct Row {
    std::vector<std::string> args;
    bool gatewayInEnvironment;
    std::string message;
};

} // namespace

TEST(CommandLineErrorTests, EveryErrorIsOneExactLineWithStatus64AndNoServer) {
    // Each server would leave a file behind if it were ever started.
    const std::string marker = temporaryPath("must-not-exist");
    const std::string server = scriptedServerPath();
    const std::string gatewayMessage = "a gateway origin is required (--gateway or SENTROVA_BRIDGE_GATEWAY)";
    const std::vector<Row> rows = {
        {{}, false, gatewayMessage},
        {{}, true, "--worker-name is required"},
        {{"--worker-name", "w", "--", server, "--args-file", marker}, false, gatewayMessage},
        {{"--gateway", "", "--worker-name", "w", "--", server, "--args-file", marker}, true, gatewayMessage},
        {{"--gateway", "http://[::1", "--worker-name", "w", "--", server, "--args-file", marker}, false,
         gatewayMessage},
        {{"--gateway", "--", server, "--args-file", marker}, true, "missing value for --gateway"},
        {{"--worker-name", "w", "--deadline"}, true, "missing value for --deadline"},
        {{"--worker-name", "w", "--bogus", "--", server, "--args-file", marker}, false, "unknown argument --bogus"},
        {{"--worker-name", "w", server}, true, "unknown argument " + server},
        {{"--gateway", "http://127.0.0.1:1", "--", server, "--args-file", marker}, false,
         "--worker-name is required"},
        {{"--worker-name", "w"}, true, "a real server command is required after --"},
        {{"--worker-name", "w", "--"}, true, "a real server command is required after --"},
    };

    for (const Row& row : rows) {
        Environment env = testEnvironment();
        if (row.gatewayInEnvironment) env["SENTROVA_BRIDGE_GATEWAY"] = "http://127.0.0.1:1";
        const FinishedRun run = runBridge(row.args, env, "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n");
        ASSERT_TRUE(run.status.has_value()) << row.message;
        EXPECT_EQ(run.status->code, 64) << row.message;
        EXPECT_EQ(run.errors, "sentrova-mcp-bridge: " + row.message + "\n");
        EXPECT_EQ(run.output, "") << row.message;
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(CommandLineErrorTests, NoHelpOrVersionOptions) {
    for (const std::string word : {"--help", "-h", "--version"}) {
        const FinishedRun run = runBridge({word}, testEnvironment());
        ASSERT_TRUE(run.status.has_value());
        EXPECT_EQ(run.status->code, 64);
        EXPECT_EQ(run.errors, "sentrova-mcp-bridge: unknown argument " + word + "\n");
        EXPECT_EQ(run.output, "");
    }
}
