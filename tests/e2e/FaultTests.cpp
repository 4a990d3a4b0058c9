// Fault injection against the built bridge: a misbehaving gateway, server or client must never
// let a call through, crash the bridge, hang it past its deadline, or lose or cut a line.

#include <array>
#include <set>

#include <httplib.h>

#include "BridgeHarness.hpp"

namespace sentrova::e2e {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCheckMemory = false; // shadow memory and the allocator's quarantine grow on their own
#else
constexpr bool kCheckMemory = true;
#endif

const std::string kOk = R"({"content":[{"type":"text","text":"ok"}]})";

// Threads, open descriptors and resident kB (now and at the peak) of a running process.
std::array<long, 4> sample(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid), status = readFile(proc + "/status");
    auto field = [&](const std::string& name) { return std::atol(status.c_str() + status.find(name) + name.size()); };
    const long descriptors = std::distance(std::filesystem::directory_iterator(proc + "/fd"), {});
    return {field("\nThreads:"), descriptors, field("\nVmRSS:"), field("\nVmHWM:")};
}

TEST(FaultTests, EveryGatewayFailureDeniesAndNothingReachesTheServer) {
    DevGateway allowing(R"({"rules":[{"tool":"*","decision":"allow"}]})");
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ";
    const std::string huge = R"({"decision":"allow","pad":")" + std::string(2 << 20, 'x') + "\"}";
    BrokenGateway html(ok + "18\r\n\r\n<html>allow</html>"), empty(ok + "0\r\n\r\n");
    BrokenGateway tooLong(ok + std::to_string(huge.size()) + "\r\n\r\n" + huge);
    BrokenGateway cutOff(ok + "20\r\n\r\n{\"decision\":\"al", true);
    BrokenGateway notHTTP("\x16\x03\x01 not http \xff\r\n\r\n{\"decision\":\"allow\"}" + std::string(5000, '\0'));
    BrokenGateway silent("");
    Environment wrongToken = testEnvironment();
    wrongToken["SENTROVA_GATEWAY_TOKEN"] = "not the token";
    struct Row {
        std::string name, url, reason;
        double deadline;
        Environment env = testEnvironment();
    };
    const std::vector<Row> rows = {
        {"refused", kDownGateway, "did not answer in time", 20},
        {"401", allowing.url, "did not answer in time", 20, wrongToken},
        {"not a verdict", html.url, "unreadable verdict", 20},
        {"empty body", empty.url, "unreadable verdict", 20},
        {"answer over 1 MiB", tooLong.url, "unreadable verdict", 20},
        {"cut off and reset", cutOff.url, "did not answer in time", 20},
        {"not HTTP", notHTTP.url, "did not answer in time", 20},
        {"silent", silent.url, "timed out", 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string record = temporaryPath("record");
        std::vector<std::string> args = bridgeArgs(row.url, kServer, {record, kOk, "/dev/null"});
        args.insert(args.begin(), {"--deadline", std::to_string(row.deadline)});
        Child bridge(args, row.env);
        const auto started = std::chrono::steady_clock::now();
        for (int id = 1; id <= 2; ++id) {
            const std::string deny = bridge.send(callLine(std::to_string(id), "delete_everything"));
            EXPECT_NE(deny.find(row.reason + "; denying"), std::string::npos) << deny;
            EXPECT_NE(deny.find("(fail-closed)."), std::string::npos) << deny;
        }
        // A failure that is known is answered at once; only the silent gateway costs its deadline.
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), row.deadline < 5 ? 2 * row.deadline + 15 : 15.0);
        ASSERT_TRUE(bridge.writeLine(pingLine(9)));
        bridge.finish();
        EXPECT_EQ(readFile(record), pingLine(9) + "\n");
    }
    EXPECT_GE(silent.connections + cutOff.connections, 4);
}

TEST(FaultTests, ServerCrashInTheMiddleOfACall) {
    DevGateway allowing(R"({"rules":[{"tool":"*","decision":"allow"}]})");
    const std::string record = temporaryPath("record");
    // The server takes the call and dies by SIGKILL before it answers; the client's input stays
    // open, so the server's end alone must end the run.
    Child bridge(bridgeArgs(allowing.url, R"(read -r l; printf '%s\n' "$l" > "$0"; kill -9 $$)", {record}));
    ASSERT_TRUE(bridge.writeLine(callLine("1", "slow_tool")));
    EXPECT_EQ(bridge.waitExit(), 9);
    EXPECT_EQ(readFile(record), callLine("1", "slow_tool") + "\n");
}

TEST(FaultTests, TwentyMegabyteLinesArriveWholeInBoundedMemory) {
    // Ten million levels of nesting from the client, then from the server, then a tool call whose
    // arguments nest as deep (put to the gateway, which is down): memory stays within ten times
    // a line plus a constant.
    constexpr std::size_t size = 20'000'000;
    const std::string record = temporaryPath("record");
    Child bridge(bridgeArgs(kDownGateway,
                            R"(read -r l; printf '%s\n' "$l" > "$0"; head -c $1 /dev/zero | tr '\0' '[';)"
                            R"( head -c $1 /dev/zero | tr '\0' ']'; echo; exec cat >> "$0")",
                            {record, std::to_string(size / 2)}));
    const std::string nested = std::string(size / 2, '[') + std::string(size / 2, ']');
    const std::string big = R"({"jsonrpc":"2.0","method":"notifications/message","params":{"data":)" + nested + "}}";
    ASSERT_TRUE(bridge.writeLine(big));
    EXPECT_TRUE(bridge.readLine(60s) == nested);
    const std::string deny = bridge.send(callLine("1", "delete_everything", R"(,"arguments":{"a":)" + nested + "}"));
    EXPECT_NE(deny.find("(fail-closed)"), std::string::npos) << deny.substr(0, 300);
    const long peakMB = sample(bridge.pid)[3] / 1024;
    std::printf("peak resident memory with 20 MB nested lines both ways: %ld MB\n", peakMB);
    if (kCheckMemory) {
        EXPECT_LT(peakMB, 10 * 20 + 16);
    }
    bridge.finish();
    EXPECT_TRUE(readFile(record) == big + "\n");
}

TEST(FaultTests, ClientClosingItsInputWhileAnApprovalIsPending) {
    BrokenGateway silent("");
    DevGateway late(R"({"rules":[{"tool":"*","decision":"allow","delaySeconds":1}]})");
    for (const std::string& url : {silent.url, late.url}) {
        const std::string record = temporaryPath("record");
        std::vector<std::string> args = bridgeArgs(url, kServer, {record, kOk, "/dev/null"});
        args.insert(args.begin(), {"--deadline", "2"});
        Child bridge(args);
        ASSERT_TRUE(bridge.writeLine(callLine("1", "late_tool")));
        bridge.closeInput();
        // The silent gateway costs the deadline and a deny; the late allow still reaches the
        // server once, and its answer the client.
        const std::string output = bridge.finish();
        const bool allowed = url == late.url;
        EXPECT_NE(output.find(allowed ? R"("text":"ok")" : "timed out"), std::string::npos) << output;
        EXPECT_EQ(readFile(record), allowed ? callLine("1", "late_tool") + "\n" : "");
    }
}

TEST(FaultTests, AGatewayBehindAPrivateCAIsTrustedOnlyThroughTheCABundleVariables) {
    // A throw-away CA and a certificate for 127.0.0.1 signed by it.
    const std::string dir = temporaryPath("ca"), ca = dir + "/ca.pem";
    const std::string ec = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 ";
    const std::string make = "mkdir " + dir + " && cd " + dir + " && " + ec + "-subj /CN=ca -keyout ca.key " +
                             "-out ca.pem && " + ec + "-subj /CN=gw -addext subjectAltName=IP:127.0.0.1 -CA ca.pem " +
                             "-CAkey ca.key -keyout gw.key -out gw.pem";
    ASSERT_EQ(std::system(("(" + make + ") >/dev/null 2>&1").c_str()), 0);
    httplib::SSLServer https((dir + "/gw.pem").c_str(), (dir + "/gw.key").c_str());
    https.Post("/v1/toolcall", [](const httplib::Request&, httplib::Response& answer) {
        answer.set_content(R"({"decision":"allow"})", "application/json");
    });
    const std::string url = "https://127.0.0.1:" + std::to_string(https.bind_to_any_port("127.0.0.1"));
    std::thread serving([&] { https.listen_after_bind(); });

    const std::vector<std::pair<Environment, bool>> rows = {
        {{}, false},
        {{{"CURL_CA_BUNDLE", ca}}, true},
        {{{"SSL_CERT_FILE", ca}}, true},
        {{{"CURL_CA_BUNDLE", "/etc/ssl/certs/ca-certificates.crt"}, {"SSL_CERT_FILE", ca}}, false},
    };
    for (const auto& [variables, trusted] : rows) {
        SCOPED_TRACE(::testing::PrintToString(variables));
        Environment env = testEnvironment();
        env.erase("CURL_CA_BUNDLE"), env.erase("SSL_CERT_FILE");
        env.insert(variables.begin(), variables.end());
        Child bridge(bridgeArgs(url, kServer, {"/dev/null", kOk, "/dev/null"}), env);
        EXPECT_NE(bridge.send(callLine("1", "t")).find(trusted ? R"("text":"ok")" : "(fail-closed)"), std::string::npos);
        bridge.finish();
    }
    https.stop();
    serving.join();
}

TEST(FaultTests, ManyCallsInARowLeaveNoThreadDescriptorOrMemoryGrowth) {
    constexpr int kWarmUp = 1'000, kCalls = 10'000;
    DevGateway allowing(R"({"rules":[{"tool":"*","decision":"allow"}]})");
    Child bridge(bridgeArgs(allowing.url, kServer, {"/dev/null", kOk, "/dev/null"}));
    std::set<std::string> answered; // decisions run side by side: answers come in any order
    auto runCalls = [&](int from, int to) {
        for (int block = from; block < to; block += 200) { // the pipes stay busy, no wait per answer
            std::string calls;
            for (int id = block; id < std::min(block + 200, to); ++id) calls += callLine(std::to_string(id), "e") + "\n";
            EXPECT_TRUE(bridge.write(calls));
            for (int id = block; id < std::min(block + 200, to); ++id) {
                const std::string line = bridge.readLine(600s).value_or("(none)");
                EXPECT_NE(line.find(R"("text":"ok")"), std::string::npos) << line;
                answered.insert(line.substr(0, line.find(",\"result\"")));
            }
        }
        std::this_thread::sleep_for(300ms); // transient resolver threads end
        return sample(bridge.pid);
    };
    const auto early = runCalls(0, kWarmUp), late = runCalls(kWarmUp, kCalls);
    std::printf("threads, descriptors, kB after %d calls: %ld %ld %ld, after %d: %ld %ld %ld\n", kWarmUp, early[0],
                early[1], early[2], kCalls, late[0], late[1], late[2]);
    EXPECT_LE(late[0], early[0] + 1);
    EXPECT_LE(late[1], early[1] + 2);
    if (kCheckMemory) {
        EXPECT_LE(late[2], early[2] + 8 * 1024);
    }
    EXPECT_EQ(answered.size(), static_cast<std::size_t>(kCalls)) << "each call answered once";
    EXPECT_EQ(allowing.records("toolcall", kCalls).size(), static_cast<std::size_t>(kCalls));
    bridge.finish();
}

} // namespace
} // namespace sentrova::e2e
