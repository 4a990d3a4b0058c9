#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "MCPBridgeCore/CommandLine.hpp"
#include "TestSupport.hpp"

namespace sentrova {
namespace {

// What the bridge would run with, in one line, or its error.
std::string outcome(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
    auto result = parseCommandLine(args, env);
    if (auto* error = std::get_if<CommandLineError>(&result)) return "error: " + error->message;
    const auto& c = std::get<BridgeConfig>(result);
    std::ostringstream out;
    out << c.gateway.decisionURL().value_or("-") << (c.gateway.sendable() ? " (sendable)" : " (unsendable)") << " token=" << c.gatewayToken.value_or("-") << " worker=" << c.workerName
        << " provider=" << c.provider.value_or("-") << " ca=" << c.caBundle.value_or("-") << " server="
        << c.serverCommandString() << " (" << c.serverArgv.size() << " words) deadline=" << c.deadline
        << " heartbeat=" << c.heartbeatInterval;
    return out.str();
}

TEST(CommandLineTests, EveryRowGivesItsSettingsOrItsError) {
    for (const auto& row : test::caseRows("command-line.txt", /*raw=*/true)) {
        std::map<std::string, std::string> env;
        std::istringstream pairs(row[1] == "-" ? "" : row[1]);
        for (std::string pair; std::getline(pairs, pair, ';');) env[pair.substr(0, pair.find('='))] = pair.substr(pair.find('=') + 1);
        EXPECT_EQ(outcome(test::words(row[0]), env), row[2]) << row[0];
    }
}

} // namespace
} // namespace sentrova
