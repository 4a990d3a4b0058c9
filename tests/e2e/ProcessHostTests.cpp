// The built bridge with a scripted server behind it: exit status, error and environment
// pass-through, the endings of a run, and lines of every size in both directions.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <thread>

#include "BridgeHarness.hpp"
#include "TestGateway.hpp"

using namespace sentrova::e2e;

namespace {

// No test here asks the gateway; a refused port keeps it that way.
std::string downGateway() { return "http://127.0.0.1:" + std::to_string(closedLocalPort()); }

std::unique_ptr<ChildProcess> startWithScript(const std::vector<std::string>& script,
                                              const Environment& env = testEnvironment()) {
    auto bridge = ChildProcess::startBridge(bridgeArgs(downGateway(), script), env);
    EXPECT_NE(bridge, nullptr);
    return bridge;
}

// Starts the bridge with bridgeWords from a bash command, in which "$0" "$@" runs the bridge.
const std::string runBridgeWords = "\"$0\" \"$@\"";
std::unique_ptr<ChildProcess> startFromBash(const std::string& command, const std::vector<std::string>& bridgeWords) {
    std::vector<std::string> args = {"-c", command, bridgePath()};
    args.insert(args.end(), bridgeWords.begin(), bridgeWords.end());
    auto bridge = ChildProcess::start("/bin/bash", args, testEnvironment());
    EXPECT_NE(bridge, nullptr);
    return bridge;
}

std::string notification(const std::string& payload) {
    return R"({"jsonrpc":"2.0","method":"notifications/message","params":{"data":")" + payload + "\"}}";
}

} // namespace

TEST(ProcessHostTests, ExitStatusIsTheServersOwn) {
    EXPECT_EQ(startWithScript({"--exit", "3"})->waitExitCode(), 3);
    EXPECT_EQ(startWithScript({"--exit", "0"})->waitExitCode(), 0);
    // A signal's number becomes the bridge's exit code.
    EXPECT_EQ(startWithScript({"--kill", "9"})->waitExit(), (ExitStatus{9, 0}));
    EXPECT_EQ(startWithScript({"--kill", "15"})->waitExitCode(), 15);
    // An ignored SIGCHLD stays ignored across exec; bash (unlike dash) hands that on to the bridge.
    const auto exitThree = bridgeArgs(downGateway(), {"--exit", "3"});
    EXPECT_EQ(startFromBash("trap '' CHLD; exec " + runBridgeWords, exitThree)->waitExitCode(), 3);
}

TEST(ProcessHostTests, RunsWhenStartedWithClosedInputAndOutput) {
    // A closed input is an input that has ended; the server sees the end and exits.
    const auto script = bridgeArgs(downGateway(), {"--serve", "--stdout", "lost\n", "--stderr", "kept", "--exit", "6"});
    auto bridge = startFromBash("exec 0<&- 1>&-; exec " + runBridgeWords, script);
    EXPECT_EQ(bridge->waitExitCode(), 6);
    EXPECT_TRUE(bridge->errors().waitForEnd(defaultTimeout));
    EXPECT_EQ(bridge->errors().text(), "kept");
}

TEST(ProcessHostTests, UnknownProgramGivesEnvsOwnMessageAndStatus) {
    const FinishedRun run = runBridge(
        {"--gateway", downGateway(), "--worker-name", "w", "--", "sentrova-e2e-no-such-program"}, testEnvironment());
    EXPECT_EQ(run.status, (ExitStatus{127, 0}));
    EXPECT_NE(run.errors.find("sentrova-e2e-no-such-program"), std::string::npos) << run.errors;
    EXPECT_EQ(run.errors.find("failed to launch"), std::string::npos) << run.errors;
    EXPECT_EQ(run.output, "");
}

TEST(ProcessHostTests, ServerErrorOutputArrivesUnchanged) {
    const std::string bytes = std::string("first line\n\tsecond \x01\xff line\r\n") + std::string(100'000, 'e');
    const FinishedRun run = runBridge(
        bridgeArgs(downGateway(), {"--stderr", bytes, "--stderr", "last words without newline"}), testEnvironment());
    EXPECT_EQ(run.status, (ExitStatus{0, 0}));
    EXPECT_TRUE(run.errors == bytes + "last words without newline") << "stderr size " << run.errors.size();
    EXPECT_EQ(run.output, "");
}

TEST(ProcessHostTests, ServerSeesTheEnvironmentAndArgumentsUnchanged) {
    Environment env = testEnvironment();
    env["SENTROVA_BRIDGE_GATEWAY"] = "http://127.0.0.1:1/unused";
    env["SENTROVA_GATEWAY_TOKEN"] = "token with spaces=and equals";
    env["SENTROVA_E2E_EMPTY"] = "";
    env["SENTROVA_E2E_MULTILINE"] = "line one\nline two \xe2\x80\x94 dash";
    const std::string envFile = temporaryPath("env");
    const std::string argsFile = temporaryPath("args");
    const std::vector<std::string> script = {"--env-file", envFile, "--args-file", argsFile, "", "a b", "--",
                                             "--gateway"};
    // Script words the server does not know end it with status 2, after both files are written.
    EXPECT_EQ(startWithScript(script, env)->waitExitCode(), 2);

    std::vector<std::string> seen = readNulSeparated(envFile);
    std::vector<std::string> expected;
    for (const auto& [name, value] : env) expected.push_back(name + "=" + value);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, expected);
    std::vector<std::string> argv = {scriptedServerPath()};
    argv.insert(argv.end(), script.begin(), script.end());
    EXPECT_EQ(readNulSeparated(argsFile), argv);
}

TEST(ProcessHostTests, ClientClosingItsInputEndsTheRunWithTheServersStatus) {
    auto bridge = startWithScript({"--serve", "--exit", "5"});
    bridge->closeInput();
    EXPECT_EQ(bridge->waitExitCode(), 5);
    EXPECT_TRUE(bridge->output().waitForEnd(defaultTimeout));
    EXPECT_EQ(bridge->output().text(), "");

    // A server that closes its output first: the run must not end before the server does.
    bridge = startWithScript({"--close-stdout", "--serve", "--exit", "4"});
    EXPECT_FALSE(bridge->waitExit(std::chrono::milliseconds(500)).has_value());
    bridge->closeInput();
    EXPECT_EQ(bridge->waitExitCode(), 4);
}

TEST(ProcessHostTests, TheServerGetsTheBridgesSignalsAndNeverOutlivesIt) {
    const std::string sleeper = "echo $$; exec sleep 1000"; // deaf to its input
    const std::string stubborn = "trap '' TERM; " + sleeper;
    struct Row {
        int signal; // 0: the client closes the bridge's input
        std::string server;
        ExitStatus bridge;
        double seconds; // at least this long until the bridge exits
    };
    const std::vector<Row> rows = {
        {SIGTERM, sleeper, {SIGTERM, 0}, 0}, {SIGINT, sleeper, {SIGINT, 0}, 0}, {SIGHUP, sleeper, {SIGHUP, 0}, 0},
        {SIGKILL, sleeper, {-1, SIGKILL}, 0}, // the server gets its parent-death signal
        {0, sleeper, {SIGTERM, 0}, 5},        // 5 s after the end of its input, SIGTERM
        {0, stubborn, {SIGKILL, 0}, 10},      // and SIGKILL 5 s later
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.server + ", signal " + std::to_string(row.signal));
        auto bridge = startFromBash("exec 7</dev/null; exec " + runBridgeWords,
                                    {"--gateway", downGateway(), "--worker-name", "w", "--", "sh", "-c", row.server});
        const std::string server = "/proc/" + bridge->readLine().value_or("no pid");
        std::error_code closed; // sleep opens and closes locale files as it starts
        for (const auto& fd : std::filesystem::directory_iterator(server + "/fd", closed)) {
            const std::string name = fd.path().filename(), target = std::filesystem::read_symlink(fd, closed);
            // Neither descriptor 7 nor any pipe of the bridge's own gets through.
            EXPECT_TRUE((name.size() == 1 && name < "3") || (name != "7" && !target.starts_with("pipe:")))
                << name << " -> " << target;
        }

        const auto started = std::chrono::steady_clock::now();
        row.signal != 0 ? (void)::kill(bridge->pid(), row.signal) : bridge->closeInput();
        EXPECT_EQ(bridge->waitExit(), row.bridge);
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        EXPECT_GE(elapsed, row.seconds);
        EXPECT_LT(elapsed, row.seconds + 20);
        // Gone, or a zombie that nobody reaps.
        auto running = [&] {
            const std::string stat = readFile(server + "/stat");
            return stat.size() > stat.rfind(')') + 2 && stat[stat.rfind(')') + 2] != 'Z';
        };
        for (int i = 0; i < 600 && running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(running());
    }
}

TEST(ProcessHostTests, ASlowClientGetsEveryByteTheServerWroteBeforeItExited) {
    // The client starts reading 3 s later: long after the server has written its lines and exited.
    const std::string line = "--write-long", size = "500000";
    auto bridge = startFromBash(runBridgeWords + " | { sleep 3; exec cat; }; exit ${PIPESTATUS[0]}",
                                bridgeArgs(downGateway(), {line, size, line, size, line, size, "--exit", "0"}));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(bridge->readLine().value_or("").size(), 500'000u);
    EXPECT_EQ(bridge->waitExitCode(), 0);
}

TEST(ProcessHostTests, LinesWrittenJustBeforeTheServerExitsAreAllDelivered) {
    auto bridge = startWithScript({"--write-lines", "10000", "--exit", "0"});
    // The client's input stays open: the server's exit alone ends the run.
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(bridge->readLine(), R"({"jsonrpc":"2.0","method":"notifications/message","params":{"seq":)" +
                                          std::to_string(i) + "}}")
            << "line " << i;
    }
    EXPECT_EQ(bridge->waitExitCode(), 0);
    EXPECT_TRUE(bridge->output().waitForEnd(defaultTimeout));
    EXPECT_FALSE(bridge->readLine(std::chrono::milliseconds(0)).has_value());

    // Lines the server writes after the client has left are still relayed.
    bridge = startWithScript({"--serve", "--sleep", "200", "--write-lines", "3", "--exit", "0"});
    bridge->closeInput();
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(bridge->readLine().value_or("").find("\"seq\":" + std::to_string(i)), std::string::npos);
    }
    EXPECT_EQ(bridge->waitExitCode(), 0);
}

TEST(ProcessHostTests, FramingInBothDirections) {
    const std::string record = temporaryPath("framing");
    auto bridge = startWithScript({"--record", record, "--serve", "--stdout", "from server\r\n\n\nno newline at end"});
    // Empty lines are dropped, CR is kept, the last line needs no LF (non-JSON goes only to the client).
    bridge->write("\n\n" + notification("a") + "\r\n\n" + notification("x") + "\n" + notification("z"));
    bridge->closeInput();
    EXPECT_EQ(bridge->waitExitCode(), 0);
    EXPECT_EQ(readFile(record), notification("a") + "\r\n" + notification("x") + "\n" + notification("z") + "\n");
    EXPECT_TRUE(bridge->output().waitForEnd(defaultTimeout));
    EXPECT_EQ(bridge->output().text(), "from server\r\nno newline at end\n");
}

TEST(ProcessHostTests, MillionByteLinesPassUnchangedBothWays) {
    auto bridge = startWithScript({"--echo", "--serve", "--write-long", "1000000", "--exit", "0"});
    std::string big = notification(std::string(1'000'000 - notification("").size(), 'b'));
    ASSERT_EQ(big.size(), 1'000'000u);
    big[100] = 'B';
    std::thread writer([&] {
        bridge->writeLine(big);
        bridge->writeLine(notification("small after big"));
        bridge->closeInput();
    });
    const auto echoed = bridge->readLine();
    EXPECT_TRUE(echoed == big) << "echoed size " << echoed.value_or("").size();
    EXPECT_EQ(bridge->readLine(), notification("small after big"));
    const std::string fromServer = bridge->readLine().value_or("");
    EXPECT_EQ(fromServer.size(), 1'000'000u);
    EXPECT_EQ(fromServer.substr(0, 8), "{\"pad\":\"");
    writer.join();
    EXPECT_EQ(bridge->waitExitCode(), 0);
}

TEST(ProcessHostTests, HundredThousandSmallLinesKeepTheirOrderBothWays) {
    constexpr int count = 100'000;
    const std::string record = temporaryPath("many");
    auto bridge = startWithScript({"--echo", "--record", record, "--serve"});
    auto ping = [](int i) { return R"({"jsonrpc":"2.0","id":)" + std::to_string(i) + R"(,"method":"ping"})"; };
    std::thread writer([&] {
        std::string batch;
        for (int i = 0; i < count; ++i) {
            batch += ping(i) + "\n";
            if (batch.size() > 64 * 1024 || i == count - 1) {
                bridge->write(batch);
                batch.clear();
            }
        }
        bridge->closeInput();
    });
    int inOrder = 0;
    for (int i = 0; i < count; ++i) {
        const auto line = bridge->readLine();
        if (!line) break;
        inOrder += *line == ping(i) ? 1 : 0;
    }
    writer.join();
    EXPECT_EQ(inOrder, count);
    EXPECT_EQ(bridge->waitExitCode(), 0);
    const std::string recorded = readFile(record);
    EXPECT_EQ(std::count(recorded.begin(), recorded.end(), '\n'), count);
}
