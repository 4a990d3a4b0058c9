#include <gtest/gtest.h>

#include "MCPBridgeCore/BridgeConfig.hpp"

TEST(BridgeConfigTests, ServerCommandStringJoinsWithSingleSpaces) {
    sentrova::BridgeConfig config;
    config.serverArgv = {"npx", "-y", "a b"};
    EXPECT_EQ(config.serverCommandString(), "npx -y a b");
    config.serverArgv = {};
    EXPECT_EQ(config.serverCommandString(), "");
}
