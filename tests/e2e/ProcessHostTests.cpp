// The built bridge with sh servers behind it: its command line, exit status, error and
// environment pass-through, signals, the endings of a run, and lines in both directions.
// No test here asks the gateway; a refused port keeps it that way.

#include <algorithm>
#include <numeric>

#include "BridgeHarness.hpp"

namespace sentrova::e2e {
namespace {

Child server(const std::string& script, const std::vector<std::string>& words = {},
             const Environment& env = testEnvironment()) {
    return Child(bridgeArgs(kDownGateway, script, words), env);
}
// The bridge started from a bash command in which "$0" "$@" runs it.
Child fromBash(const std::string& command, const std::vector<std::string>& bridgeWords) {
    std::vector<std::string> args = {"-c", command, SENTROVA_BRIDGE_PATH};
    args.insert(args.end(), bridgeWords.begin(), bridgeWords.end());
    return Child(args, testEnvironment(), "/bin/bash");
}
const std::string kRunBridge = "\"$0\" \"$@\"";

TEST(ProcessHostTests, CommandLineErrorsAreOneLineAndStatus64AndStartNoServer) {
    const std::string marker = temporaryPath("must-not-exist");
    for (const auto& [args, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--worker-name", "w", "--", "touch", marker},
              "a gateway origin is required (--gateway or SENTROVA_BRIDGE_GATEWAY)"},
             {{"--gateway", "http://127.0.0.1:1", "--help", "--", "touch", marker}, "unknown argument --help"}}) {
        Child bridge(args);
        EXPECT_EQ(bridge.finish(64), "");
        EXPECT_EQ(bridge.errors(), "sentrova-mcp-bridge: " + message + "\n");
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(ProcessHostTests, ExitStatusIsTheServersOwn) {
    EXPECT_EQ(server("exit 3").waitExit(), 3);
    EXPECT_EQ(server("kill -9 $$").waitExit(), 9); // a signal's number becomes the code
    EXPECT_EQ(server("kill -15 $$").waitExit(), 15);
    // An ignored SIGCHLD stays ignored across exec; bash (unlike dash) hands that on to the bridge.
    EXPECT_EQ(fromBash("trap '' CHLD; exec " + kRunBridge, bridgeArgs(kDownGateway, "exit 3")).waitExit(),
              3);
    // Started with closed input and output: the input has ended, the server sees that and exits.
    Child closed = fromBash("exec 0<&- 1>&-; exec " + kRunBridge,
                            bridgeArgs(kDownGateway, "cat; echo lost; printf kept >&2; exit 6"));
    EXPECT_EQ(closed.waitExit(), 6);
    EXPECT_EQ(closed.errors(), "kept");
    // A program that cannot be started: env's own message and status.
    Child missing({"--gateway", kDownGateway, "--worker-name", "w", "--", "sentrova-e2e-no-such-program"});
    EXPECT_EQ(missing.finish(127), "");
    EXPECT_NE(missing.errors().find("sentrova-e2e-no-such-program"), std::string::npos);
    EXPECT_EQ(missing.errors().find("failed to launch"), std::string::npos);
}

TEST(ProcessHostTests, ServerSeesEnvironmentAndArgumentsAndItsErrorsArriveUnchanged) {
    Environment env = testEnvironment();
    env["SENTROVA_BRIDGE_GATEWAY"] = "http://127.0.0.1:1/unused";
    env["SENTROVA_E2E_EMPTY"] = "";
    env["SENTROVA_E2E_MULTILINE"] = "line one\nline two \xe2\x80\x94 dash";
    env["PWD"] = std::filesystem::current_path(); // sh keeps a true PWD as it is
    const std::string envFile = temporaryPath("env"), argsFile = temporaryPath("args"), bytesFile = temporaryPath("b");
    const std::string bytes = "first line\n\tsecond \x01\xff line\r\n" + std::string(100'000, 'e') + " no LF";
    writeFile(bytesFile, bytes);
    const std::vector<std::string> words = {envFile, argsFile, bytesFile, "", "a b", "--", "--gateway"};
    Child bridge = server(R"(env -0 | LC_ALL=C sort -z > "$0"; printf '%s\0' "$0" "$@" > "$1"; cat "$2" >&2; exit 2)",
                          words, env);
    EXPECT_EQ(bridge.finish(2), "");
    EXPECT_TRUE(bridge.errors() == bytes) << "stderr size " << bridge.errors().size();
    std::vector<std::string> entries;
    for (const auto& [name, value] : env) entries.push_back(name + "=" + value + '\0');
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(readFile(envFile), std::accumulate(entries.begin(), entries.end(), std::string()));
    std::string argv;
    for (const auto& word : words) argv += word + '\0';
    EXPECT_EQ(readFile(argsFile), argv);
}

TEST(ProcessHostTests, TheEndOfEitherSideLosesNoLine) {
    // The client closes its input: the run ends with the server's status.
    EXPECT_EQ(server("cat > /dev/null; exit 5").finish(5), "");
    // The server closes its output first: the client's lines still reach it, and the run does
    // not end before the server does.
    const std::string record = temporaryPath("record");
    Child early = server(R"(exec >&-; cat > "$0"; exit 4)", {record});
    ASSERT_TRUE(early.writeLine(pingLine(1)));
    EXPECT_FALSE(early.waitExit(500ms).has_value());
    ASSERT_TRUE(early.writeLine(pingLine(2)));
    EXPECT_EQ(early.finish(4), "");
    EXPECT_EQ(readFile(record), pingLine(1) + "\n" + pingLine(2) + "\n");
    // Lines written just before the server exits, or after the client has left, all arrive.
    std::string lines;
    for (int i = 0; i < 10000; ++i) lines += std::to_string(i) + "\n";
    Child exiting = server("seq 0 9999"); // the client's input stays open
    EXPECT_EQ(exiting.waitExit(), 0);
    EXPECT_EQ(exiting.finish(), lines);
    EXPECT_EQ(server("cat > /dev/null; sleep 0.2; seq 0 2").finish(), "0\n1\n2\n");
    // A slow client gets every byte, long after the server has written its lines and exited.
    Child slow = fromBash(kRunBridge + " | { sleep 3; exec cat; }; exit ${PIPESTATUS[0]}",
                          bridgeArgs(kDownGateway, "for i in 1 2 3; do head -c 500000 /dev/zero | tr '\\0' x; echo; done"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(slow.readLine().value_or("").size(), 500'000u);
    EXPECT_EQ(slow.waitExit(), 0);
}

TEST(ProcessHostTests, TheServerGetsTheBridgesSignalsAndNeverOutlivesIt) {
    const std::string sleeper = "echo $$; exec sleep 1000"; // deaf to its input
    const std::string stubborn = "trap '' TERM; " + sleeper;
    struct Row {
        int signal; // 0: the client closes the bridge's input
        std::string server;
        int bridge; // its exit code, or minus the signal that ended it
        double seconds; // at least this long until the bridge exits
    };
    const std::vector<Row> rows = {
        {SIGTERM, sleeper, SIGTERM, 0}, {SIGINT, sleeper, SIGINT, 0}, {SIGHUP, sleeper, SIGHUP, 0},
        {SIGKILL, sleeper, -SIGKILL, 0}, // the server gets its parent-death signal
        {0, sleeper, SIGTERM, 5},        // 5 s after the end of its input, SIGTERM
        {0, stubborn, SIGKILL, 10},      // and SIGKILL 5 s later
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.server + ", signal " + std::to_string(row.signal));
        Child bridge = fromBash("exec 7</dev/null; exec " + kRunBridge, bridgeArgs(kDownGateway, row.server));
        const std::string server = "/proc/" + bridge.readLine().value_or("no pid");
        std::error_code closed; // sleep opens and closes locale files as it starts
        for (const auto& fd : std::filesystem::directory_iterator(server + "/fd", closed)) {
            const std::string name = fd.path().filename(), target = std::filesystem::read_symlink(fd, closed);
            // Neither descriptor 7 nor any pipe of the bridge's own gets through.
            EXPECT_TRUE((name.size() == 1 && name < "3") || (name != "7" && !target.starts_with("pipe:")))
                << name << " -> " << target;
        }
        const auto started = std::chrono::steady_clock::now();
        row.signal != 0 ? (void)::kill(bridge.pid, row.signal) : bridge.closeInput();
        EXPECT_EQ(bridge.waitExit(), row.bridge);
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        EXPECT_GE(elapsed, row.seconds);
        EXPECT_LT(elapsed, row.seconds + 20);
        auto running = [&] { // gone, or a zombie that nobody reaps
            const std::string stat = readFile(server + "/stat");
            return stat.size() > stat.rfind(')') + 2 && stat[stat.rfind(')') + 2] != 'Z';
        };
        for (int i = 0; i < 600 && running(); ++i) std::this_thread::sleep_for(50ms);
        EXPECT_FALSE(running());
    }
}

TEST(ProcessHostTests, LinesKeepTheirBytesAndOrderBothWays) {
    // From the server: random bytes (NULs, invalid UTF-8, CRs, stray and doubled LFs) and a last
    // line without LF come out as every non-empty line, each with one LF.
    std::string garbage(300'000, '\0'), expected;
    std::uint32_t state = 12345;
    for (char& c : garbage) c = static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
    garbage += "\r\n\n\nno LF";
    for (std::size_t start = 0, lf; start < garbage.size(); start = lf + 1) {
        lf = std::min(garbage.find('\n', start), garbage.size());
        if (lf > start) expected += garbage.substr(start, lf - start) + "\n";
    }
    const std::string file = temporaryPath("garbage"), record = temporaryPath("record");
    writeFile(file, garbage);
    Child bridge = server(R"(cat "$1"; exec cat > "$0")", {record, file});
    // From the client: the same framing, a million-byte line and a hundred thousand small ones.
    const std::string big = R"({"jsonrpc":"2.0","method":"m","params":{"data":")" + std::string(999'950, 'b') + "B\"}}";
    std::string lines = big + "\n";
    for (int i = 1; i <= 100'000; ++i) lines += pingLine(i) + "\n";
    // The output is collected all the while, so nothing blocks on a full pipe.
    ASSERT_TRUE(bridge.write("\n\n" + pingLine(0) + "\r\n\n" + lines + pingLine(-1)));
    EXPECT_TRUE(bridge.finish() == expected);
    EXPECT_TRUE(readFile(record) == pingLine(0) + "\r\n" + lines + pingLine(-1) + "\n") << readFile(record).size();
}

} // namespace
} // namespace sentrova::e2e
