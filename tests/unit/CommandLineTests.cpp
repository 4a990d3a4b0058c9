#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "MCPBridgeCore/CommandLine.hpp"

using sentrova::BridgeConfig;
using sentrova::CommandLineError;
using sentrova::parseCommandLine;
using sentrova::parseSeconds;

namespace {

using Env = std::map<std::string, std::string>;
using Words = std::vector<std::string>;

const Env withGateway{{"SENTROVA_BRIDGE_GATEWAY", "http://127.0.0.1:7300"}};
const std::string gatewayMessage = "a gateway origin is required (--gateway or SENTROVA_BRIDGE_GATEWAY)";

std::string errorOf(const Words& args, const Env& env = {}) {
    auto result = parseCommandLine(args, env);
    if (auto* error = std::get_if<CommandLineError>(&result)) return error->message;
    return "(no error)";
}

BridgeConfig configOf(const Words& args, const Env& env = withGateway) {
    auto result = parseCommandLine(args, env);
    if (auto* error = std::get_if<CommandLineError>(&result)) {
        ADD_FAILURE() << "unexpected error: " << error->message;
        return {};
    }
    return std::get<BridgeConfig>(result);
}

} // namespace

TEST(CommandLineTests, EveryFailureHasItsOwnMessageAndScanErrorsComeFirst) {
    const std::string noServer = "a real server command is required after --";
    const std::vector<std::tuple<Words, Env, std::string>> rows = {
        {{}, {}, gatewayMessage},
        {{}, withGateway, "--worker-name is required"},
        {{"--worker-name", "w"}, withGateway, noServer},
        {{"--worker-name", "w", "--"}, withGateway, noServer},
        {{"--worker-name", "w", "--deadline"}, withGateway, "missing value for --deadline"},
        {{"--heartbeat"}, {}, "missing value for --heartbeat"},
        {{"--provider"}, {}, "missing value for --provider"},
        {{"--worker-name"}, {}, "missing value for --worker-name"},
        {{"srv"}, withGateway, "unknown argument srv"},
        {{"--Gateway", "x"}, withGateway, "unknown argument --Gateway"},
        {{"--gateway=http://x", "--", "srv"}, {}, "unknown argument --gateway=http://x"},
        {{"--worker-name", "w", "--", "srv"}, {{"SENTROVA_BRIDGE_GATEWAY", ""}}, gatewayMessage},
        {{"--gateway", "http://[::1", "--worker-name", "w", "--", "srv"}, {}, gatewayMessage},
        // An empty --gateway replaces the environment's valid one and then fails the URL check.
        {{"--gateway", "", "--worker-name", "w", "--", "srv"}, withGateway, gatewayMessage},
        // Scan errors come before check errors, the first problem wins, and the split at the
        // first "--" happens before the scan, so the option has no value.
        {{"--worker-name", "w", "--bogus"}, {}, "unknown argument --bogus"},
        {{"--gateway", "--", "srv"}, {}, "missing value for --gateway"},
        {{"--bogus", "--deadline"}, {}, "unknown argument --bogus"},
        // A bad gateway is reported before a missing worker name and a missing server.
        {{"--gateway", ""}, {}, gatewayMessage},
    };
    for (const auto& [args, env, message] : rows) {
        EXPECT_EQ(errorOf(args, env), message) << ::testing::PrintToString(args);
    }
}

TEST(CommandLineTests, SplitsAtTheFirstDoubleDashOnly) {
    BridgeConfig config = configOf({"--worker-name", "w", "--", "srv", "--flag", "--", "x"});
    EXPECT_EQ(config.serverArgv, (Words{"srv", "--flag", "--", "x"}));
    // Words after "--" are never examined.
    EXPECT_EQ(configOf({"--worker-name", "w", "--", "--gateway"}).serverArgv, (Words{"--gateway"}));
}

TEST(CommandLineTests, FillsEveryFieldAndKeepsTheLastOccurrence) {
    BridgeConfig config = configOf({"--provider", "p1", "--heartbeat", "2.5", "--gateway", "http://a.example",
                                    "--worker-name", "one", "--deadline", "7", "--worker-name", "two", "--gateway",
                                    "https://127.0.0.1:9/base/", "--provider", "p2", "--", "npx", "-y", "a b"},
                                   {{"SENTROVA_BRIDGE_GATEWAY", "http://env.example"},
                                    {"SENTROVA_GATEWAY_TOKEN", "secret"},
                                    {"CURL_CA_BUNDLE", "/ca/curl.pem"},
                                    {"SSL_CERT_FILE", "/ca/ssl.pem"}});
    EXPECT_EQ(config.gatewayURL, "https://127.0.0.1:9/base/");
    EXPECT_EQ(config.gatewayToken, std::optional<std::string>("secret"));
    EXPECT_EQ(config.workerName, "two");
    EXPECT_EQ(config.provider, std::optional<std::string>("p2"));
    EXPECT_EQ(config.serverArgv, (Words{"npx", "-y", "a b"}));
    EXPECT_EQ(config.deadline, 7.0);
    EXPECT_EQ(config.heartbeatInterval, 2.5);
    EXPECT_EQ(config.caBundle, std::optional<std::string>("/ca/curl.pem"));

    BridgeConfig defaults = configOf({"--worker-name", "w", "--", "srv"});
    EXPECT_EQ(defaults.gatewayURL, "http://127.0.0.1:7300");
    EXPECT_EQ(defaults.gatewayToken, std::nullopt);
    EXPECT_EQ(defaults.provider, std::nullopt);
    EXPECT_EQ(defaults.deadline, 240.0);
    EXPECT_EQ(defaults.heartbeatInterval, 15.0);
    EXPECT_EQ(defaults.caBundle, std::nullopt);
    Env sslCertFile = withGateway;
    sslCertFile["SSL_CERT_FILE"] = "/ca/ssl.pem";
    EXPECT_EQ(configOf({"--worker-name", "w", "--", "srv"}, sslCertFile).caBundle,
              std::optional<std::string>("/ca/ssl.pem"));
}

TEST(CommandLineTests, OptionValuesAreTakenWhateverTheyLookLike) {
    BridgeConfig config = configOf({"--worker-name", "--provider", "--", "srv"});
    EXPECT_EQ(config.workerName, "--provider");
    EXPECT_EQ(config.provider, std::nullopt);

    EXPECT_EQ(configOf({"--worker-name", "", "--", "srv"}).workerName, "");

    Env emptyToken = withGateway;
    emptyToken["SENTROVA_GATEWAY_TOKEN"] = "";
    EXPECT_EQ(configOf({"--worker-name", "w", "--", "srv"}, emptyToken).gatewayToken,
              std::optional<std::string>(""));
}

TEST(CommandLineTests, NumberWordsThatDoNotConvertAreIgnoredSilently) {
    auto deadlineOf = [](Words numberWords) {
        Words args = {"--worker-name", "w"};
        for (auto& word : numberWords) args.insert(args.end(), {"--deadline", word});
        args.insert(args.end(), {"--", "srv"});
        return configOf(args).deadline;
    };
    EXPECT_EQ(deadlineOf({"abc"}), 240.0);
    EXPECT_EQ(deadlineOf({"5", "x"}), 5.0);
    EXPECT_EQ(deadlineOf({"0x10"}), 16.0);
    EXPECT_EQ(deadlineOf({"1e3"}), 1000.0);
    EXPECT_EQ(deadlineOf({"-1"}), -1.0);
    EXPECT_EQ(deadlineOf({" 5"}), 240.0);
    EXPECT_EQ(deadlineOf({"5 "}), 240.0);
    EXPECT_EQ(deadlineOf({""}), 240.0);
}

TEST(CommandLineTests, SecondsFollowTheStrtodGrammarOverTheWholeWord) {
    EXPECT_EQ(parseSeconds("0x1.8p3"), 12.0);
    EXPECT_EQ(parseSeconds("+.5"), 0.5);
    EXPECT_EQ(parseSeconds("0"), 0.0);
    EXPECT_TRUE(std::isinf(parseSeconds("inf").value_or(0)));
    EXPECT_TRUE(std::isinf(parseSeconds("-Infinity").value_or(0)));
    EXPECT_TRUE(std::isnan(parseSeconds("NaN").value_or(0)));
    EXPECT_TRUE(parseSeconds("1e999").has_value()); // out of range is kept (an infinity)

    for (const char* refused : {"", "\t1", "\n1", "\v1", "\f1", "\r1", "1x", "1,5", "infinit", "0x", "-"}) {
        EXPECT_FALSE(parseSeconds(refused).has_value()) << "accepted: " << refused;
    }
    EXPECT_FALSE(parseSeconds(std::string("1\0", 2)).has_value());
}

TEST(CommandLineTests, GatewayMustBeAURIReference) {
    using sentrova::isURIReference;
    EXPECT_TRUE(isURIReference("http://127.0.0.1:8080"));
    EXPECT_TRUE(isURIReference("https://gateway.example/base/"));
    EXPECT_TRUE(isURIReference("relative/path")); // a reference, not necessarily absolute
    EXPECT_FALSE(isURIReference(""));
    EXPECT_FALSE(isURIReference("http://exa mple"));
    EXPECT_FALSE(isURIReference("http://[::1"));
    EXPECT_FALSE(isURIReference("%zz"));
}
