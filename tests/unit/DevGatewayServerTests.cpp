// The dev gateway over raw HTTP on 127.0.0.1: answers, refusals, audit records, asks and pins.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "TestSupport.hpp"
#include "sentrova-dev-gateway/DevGatewayOptions.hpp"

namespace sentrova {
namespace {

using namespace test;
namespace fs = std::filesystem;

// A fresh connection to the gateway with text sent on it.
int sendTo(int port, const std::string& text) {
    const int fd = loopbackSocket(port);
    (void)::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    return fd;
}

// Reads one answer within the time limit: the status (0 when none came) and the body.
std::pair<int, std::string> readAnswer(int fd, int timeoutMs = 30000) {
    std::string text;
    for (const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);;) {
        if (const std::size_t size = wholeMessage(text)) {
            const std::size_t body = text.find("\r\n\r\n") + 4;
            return {std::atoi(text.c_str() + 9), text.substr(body, size - body)};
        }
        pollfd readable{fd, POLLIN, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        char buffer[65536];
        const ssize_t got = left > 0 && ::poll(&readable, 1, static_cast<int>(left)) == 1 ? ::recv(fd, buffer, sizeof buffer, 0) : 0;
        if (got <= 0) return {0, text};
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

std::string request(int port, const std::string& path, const std::string& body) {
    return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\nAuthorization: Bearer " +
           LoopbackGateway::token + "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

// One request as raw text on a fresh connection: "status body".
std::string roundTrip(int port, const std::string& text) {
    const int fd = sendTo(port, text);
    auto [status, answer] = readAnswer(fd);
    ::close(fd);
    return std::to_string(status) + " " + answer;
}

std::string post(int port, const std::string& path, const std::string& body) { return roundTrip(port, request(port, path, body)); }

long peakMemoryKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
}

constexpr const char* kPolicy = R"({"rules":[{"tool":"echo","decision":"allow"},
    {"tool":"slow","decision":"allow","delaySeconds":0.4}, {"tool":"stuck","decision":"allow","delaySeconds":600},
    {"tool":"three","decision":"allow","delaySeconds":3}, {"tool":"ask","decision":"ask","timeoutSeconds":0.5},
    {"tool":"asklong","decision":"ask"}, {"tool":"rm","decision":"deny","reason":"never delete"}]})";
const std::string kAllow = R"(200 {"decision":"allow"})";

TEST(DevGatewayOptionsTests, EveryCommandLineRowGivesItsSettingsOrItsError) {
    for (const auto& row : caseRows("dev-gateway-options.txt", true)) {
        std::map<std::string, std::string> env;
        if (row[1] != "-") env["SENTROVA_GATEWAY_TOKEN"] = row[1];
        auto result = parseDevGatewayOptions(words(row[0]), env);
        std::string got;
        if (auto* error = std::get_if<DevGatewayOptionsError>(&result)) {
            got = row[2].starts_with("error: ") && error->message.find(row[2].substr(7)) != std::string::npos ? row[2] : error->message;
        } else {
            const auto& o = std::get<DevGatewayOptions>(result);
            got = (o.help ? "help " : "") + o.host + " " + std::to_string(o.port) + " " + o.token.value_or("-") + " " + resolveAuditLogPath(o) + " " +
                  resolveStatePath(o, "x/a.jsonl");
        }
        EXPECT_EQ(got, row[2]) << row[0];
    }
    EXPECT_EQ(listenURL("::1", 80), "http://[::1]:80");
    const std::optional<std::string> made = randomToken();
    EXPECT_EQ(made.value_or("").size(), 64u);
    EXPECT_NE(made, randomToken());
    const fs::path directory = temporaryDirectory();
    std::ofstream(directory / "token") << "file-token\n";
    std::ofstream(directory / "empty") << "\n";
    EXPECT_EQ(std::get<std::string>(readTokenFile((directory / "token").string())), "file-token");
    EXPECT_NE(std::get<DevGatewayOptionsError>(readTokenFile((directory / "empty").string())).message.find("empty"), std::string::npos);
    EXPECT_NE(std::get<DevGatewayOptionsError>(readTokenFile((directory / "none").string())).message.find("none"), std::string::npos);
    fs::remove_all(directory);
}

// Each way in for a web page or another local user is refused before the body is read, and
// a body sent in chunks is cut off at 64 MiB: the memory it may take is bounded.
TEST(DevGatewayServerTests, AnswersFromThePolicyLogsAndRefusesForeignPagesHostsTokensTypesAndBigBodies) {
    LoopbackGateway gateway(kPolicy);
    const int port = gateway.port();
    const auto fill = [&](std::string text) {
        const std::size_t body = text.find("\r\n\r\n") + 4;
        for (const auto& [name, value] : {std::pair<std::string, std::string>{"{HOST}", "127.0.0.1:" + std::to_string(port)},
                                          {"{PORT}", std::to_string(port)}, {"{LEN}", std::to_string(text.size() - body)},
                                          {"{AUTH}", std::string("Authorization: Bearer ") + LoopbackGateway::token + "\r\n"}}) {
            for (std::size_t at; (at = text.find(name)) != std::string::npos;) text.replace(at, name.size(), value);
        }
        return text;
    };
    auto rows = caseRows("dev-gateway-requests.txt");
    rows.push_back({"POST /v1/toolcall HTTP/1.1\r\nHost: {HOST}\r\n{AUTH}X-Pad: " + std::string(17000, 'p') + "\r\n\r\n", "431"});
    const auto started = Clock::now();
    for (const auto& row : rows) EXPECT_TRUE(roundTrip(port, fill(row[0])).starts_with(row[1])) << row[0];
    EXPECT_GE(secondsSince(started), 0.4); // "slow" waits its delay
    // The page stays out of caches and out of frames.
    const int page = sendTo(port, fill("GET / HTTP/1.1\r\nHost: {HOST}\r\n\r\n"));
    std::string head;
    for (char c; !head.ends_with("\r\n\r\n") && ::recv(page, &c, 1, 0) == 1;) head += c;
    ::close(page);
    for (const char* header : {"Cache-Control: no-store\r\n", "X-Frame-Options: DENY\r\n"}) EXPECT_NE(head.find(header), std::string::npos) << head;

    std::vector<Json> records = gateway.auditRecords();
    ASSERT_GE(records.size(), 8u);
    for (std::size_t i = 0; i < 8; ++i) {
        const std::string text = writeJson(records[i]).value_or("");
        for (std::size_t k = 2; k < rows[i].size(); ++k) {
            const bool absent = rows[i][k][0] == '!';
            EXPECT_EQ(text.find(rows[i][k].substr(absent)) == std::string::npos, absent) << rows[i][k] << " in " << text;
        }
    }
    const std::string file(records[5].find("screenshotFile")->stringValue());
    EXPECT_EQ(fs::file_size(file), 8u);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    const long before = peakMemoryKiB();
    const int fd = sendTo(port, fill("POST /v1/event HTTP/1.1\r\nHost: {HOST}\r\n{AUTH}Content-Type: application/json\r\n"
                                     "Transfer-Encoding: chunked\r\n\r\n"));
    const std::string chunk = "100000\r\n" + std::string(0x100000, 'A') + "\r\n";
    std::size_t sent = 0;
    while (sent < 150'000'000u && ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0) sent += 0x100000;
    ::close(fd);
    const long grown = peakMemoryKiB() - before;
    std::printf("chunked body: %zu MB sent before the gateway hung up; peak memory grew %ld MiB\n", sent / 1000000, grown / 1024);
    EXPECT_LT(sent, 100'000'000u);
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(grown, 1600L * 1024); // shadow memory on top
#else
    EXPECT_LT(grown, 400L * 1024);
#endif
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"echo"})"), kAllow); // still serving
    records = gateway.auditRecords();
    std::size_t refused = 0;
    for (std::size_t i = 8; i < records.size(); ++i) {
        refused += records[i].find("kind")->stringValue() == "refused" ? 1 : 0;
        EXPECT_FALSE(records[i].find("screenshotFile"));
    }
    EXPECT_GE(refused, 13u);
}

// Waiting calls hold no thread: with 200 of them and 40 trickling connections a normal query is
// still answered; the trickling connections are cut after 10 s.
TEST(DevGatewayServerTests, StaysResponsiveWhileCallsWaitAndConnectionsTrickle) {
    LoopbackGateway gateway(kPolicy);
    const int port = gateway.port();
    std::vector<int> waiting, trickling;
    for (int i = 0; i < 200; ++i) waiting.push_back(sendTo(port, request(port, "/v1/toolcall", R"({"tool":"three"})")));
    for (int i = 0; i < 40; ++i) trickling.push_back(sendTo(port, "P"));
    std::atomic<bool> trickle{true};
    std::thread trickler([&] {
        for (int second = 0; trickle && second < 30; ++second, std::this_thread::sleep_for(1s)) {
            for (int fd : trickling) ::send(fd, "P", 1, MSG_NOSIGNAL);
        }
    });
    std::this_thread::sleep_for(500ms);
    const auto asked = Clock::now();
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"echo"})"), kAllow);
    std::printf("normal query with 200 waiting and 40 trickling: %.1f ms\n", secondsSince(asked) * 1000);
    int answered = 0, cut = 0;
    for (int fd : waiting) answered += readAnswer(fd, 15000).second == R"({"decision":"allow"})" ? 1 : 0, ::close(fd);
    for (int fd : trickling) cut += readAnswer(fd, 15000).first == 0 ? 1 : 0; // closed without an answer
    EXPECT_LT(secondsSince(asked), 14.0);
    trickle = false;
    trickler.join();
    for (int fd : trickling) ::close(fd);
    EXPECT_EQ(answered, 200);
    EXPECT_EQ(cut, 40);
}

// An ask waits for the page; an unanswered one is denied at its time; one the bridge hangs up on
// leaves the page. A stop cuts a pending delay short.
TEST(DevGatewayServerTests, AskWaitsForThePageTimesOutOrIsAbandoned) {
    auto gateway = std::make_unique<LoopbackGateway>(kPolicy);
    const int port = gateway->port();
    const auto pending = [&] {
        return roundTrip(port, "GET /v1/pending HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                                   "\r\nAuthorization: Bearer " + LoopbackGateway::token + "\r\n\r\n");
    };
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"ask"})"),
              R"(200 {"decision":"deny","reason":"no one answered on the approval page within 0.5 s"})");
    const int caller = sendTo(port, request(port, "/v1/toolcall", R"({"tool":"asklong","argumentsJSON":"{\"a\":1}"})"));
    EXPECT_TRUE(eventually([&] { return pending().find(R"("tool":"asklong")") != std::string::npos; }));
    ::close(caller); // the client cancelled: the bridge hangs up
    EXPECT_TRUE(eventually([&] { return pending().find("asklong") == std::string::npos; }));
    EXPECT_EQ(post(port, "/v1/answer", R"({"id":"2","decision":"allow"})").substr(0, 3), "404");
    EXPECT_EQ(gateway->auditRecords().back().find("decision")->stringValue(), "abandoned");

    std::thread asker([port] { post(port, "/v1/toolcall", R"({"tool":"stuck"})"); });
    std::this_thread::sleep_for(200ms);
    const auto started = Clock::now();
    gateway.reset(); // stops and joins the server
    asker.join();
    EXPECT_LT(secondsSince(started), 20.0);
}

// Pins across runs: allowed in one run, the next run knows the pin; a changed pin is not known.
TEST(DevGatewayServerTests, RemembersAllowedPinsAcrossRuns) {
    const std::string policy = R"({"rules":[
        {"tool":"*","toolKnown":true,"pinKnown":false,"decision":"deny","reason":"changed since allowed"},
        {"tool":"*","decision":"allow"}]})";
    const std::string pinA = R"({"tool":"t","serverCommand":"npx -y s","pinHash":"aa"})";
    const std::string directory = temporaryDirectory();
    EXPECT_EQ(post(LoopbackGateway(policy, directory).port(), "/v1/toolcall", pinA), kAllow);
    {
        LoopbackGateway second(policy, directory);
        EXPECT_EQ(post(second.port(), "/v1/toolcall", pinA), kAllow);
        EXPECT_EQ(post(second.port(), "/v1/toolcall", R"({"tool":"t","serverCommand":"npx -y s","pinHash":"bb"})"),
                  R"(200 {"decision":"deny","reason":"changed since allowed"})");
    }
    const fs::path state = fs::path(directory) / "state.json";
    EXPECT_EQ(fs::status(state).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    for (const char* broken : {"{\"pins\":[", R"({"pins":[{"tool":"t","pinHash":"aa"}]})",
                               R"({"pins":[{"serverCommand":"s","pinHash":"aa"}]})", R"({"pins":[{"serverCommand":"s","tool":"t"}]})"}) {
        std::ofstream(state) << broken;
        auto loaded = DevGatewayPinStore::load(state.string());
        EXPECT_NE(std::get_if<std::string>(&loaded) ? std::get<std::string>(loaded).find("state.json") : 0, std::string::npos)
            << broken;
    }
    fs::remove_all(directory);

    // When no record can be written, no call is allowed.
    LoopbackGateway unlogged(kPolicy, {}, "/dev/full");
    EXPECT_EQ(post(unlogged.port(), "/v1/toolcall", R"({"tool":"echo"})"),
              R"x(200 {"decision":"deny","reason":"the gateway cannot write its audit log; denying (fail-closed)"})x");
}

} // namespace
} // namespace sentrova
