#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <httplib.h>

#include "sentrova-dev-gateway/DevGatewayOptions.hpp"
#include "sentrova-dev-gateway/DevGatewayServer.hpp"

using namespace sentrova;
namespace fs = std::filesystem;

namespace {

DevGatewayOptions parsedOptions(const std::vector<std::string>& args,
                                const std::map<std::string, std::string>& env = {}) {
    auto result = parseDevGatewayOptions(args, env);
    if (auto* error = std::get_if<DevGatewayOptionsError>(&result)) {
        ADD_FAILURE() << error->message;
        return {};
    }
    return std::get<DevGatewayOptions>(result);
}

std::string optionsError(const std::vector<std::string>& args) {
    auto result = parseDevGatewayOptions(args, {});
    if (auto* error = std::get_if<DevGatewayOptionsError>(&result)) {
        return error->message;
    }
    ADD_FAILURE() << "accepted";
    return {};
}

// A gateway serving a fixed policy on 127.0.0.1 with a log in a temporary directory.
class RunningGateway {
public:
    RunningGateway(const std::string& policyText, std::optional<std::string> token) {
        std::string pattern = (fs::temp_directory_path() / "devgateway-server-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
        auto policy = DevGatewayPolicy::parse(policyText, "inline");
        auto log = DevGatewayAuditLog::open((directory_ / "audit.jsonl").string());
        auditLog_ = std::move(std::get<std::unique_ptr<DevGatewayAuditLog>>(log));
        server_ = std::make_unique<DevGatewayServer>(std::get<DevGatewayPolicy>(std::move(policy)), auditLog_,
                                                     std::move(token));
        port_ = server_->bind("127.0.0.1", 0).value_or(0);
        serving_ = std::thread([this] { server_->run(); });
    }
    ~RunningGateway() {
        server_->stop();
        serving_.join();
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }

    int port() const { return port_; }

    std::vector<Json> auditRecords() const {
        std::ifstream file(directory_ / "audit.jsonl");
        std::vector<Json> records;
        for (std::string line; std::getline(file, line);) {
            records.push_back(parseJson(line).value_or(Json()));
        }
        return records;
    }

private:
    fs::path directory_;
    std::shared_ptr<DevGatewayAuditLog> auditLog_;
    std::unique_ptr<DevGatewayServer> server_;
    int port_ = 0;
    std::thread serving_;
};

constexpr const char* kPolicy = R"({"rules":[
    {"tool":"echo","decision":"allow"},
    {"tool":"slow","decision":"allow","delaySeconds":0.4},
    {"tool":"stuck","decision":"allow","delaySeconds":600},
    {"tool":"rm","decision":"deny","reason":"never delete"}]})";

} // namespace

TEST(DevGatewayOptionsTests, ReadsListenAddressTokenPolicyAndLog) {
    DevGatewayOptions defaults = parsedOptions({});
    EXPECT_EQ(defaults.host, "127.0.0.1");
    EXPECT_EQ(defaults.port, 8787);
    EXPECT_FALSE(defaults.token.has_value());
    EXPECT_EQ(resolveAuditLogPath(defaults), "sentrova-audit.jsonl");

    DevGatewayOptions options = parsedOptions({"--listen", "127.0.0.2:0", "--policy", "examples/p.json", "--token=t"},
                                              {{"SENTROVA_GATEWAY_TOKEN", "from-env"}});
    EXPECT_EQ(options.host, "127.0.0.2");
    EXPECT_EQ(options.port, 0);
    EXPECT_EQ(options.token, "t");
    EXPECT_EQ(resolveAuditLogPath(options), "examples/sentrova-audit.jsonl");

    EXPECT_EQ(parsedOptions({}, {{"SENTROVA_GATEWAY_TOKEN", "from-env"}}).token, "from-env");
    EXPECT_FALSE(parsedOptions({}, {{"SENTROVA_GATEWAY_TOKEN", ""}}).token.has_value());
    EXPECT_EQ(parsedOptions({"--listen", "[::1]:9000"}).host, "::1");
    EXPECT_EQ(parsedOptions({"--listen", "localhost:9000"}).host, "127.0.0.1");
    EXPECT_EQ(parsedOptions({"--port", "65535"}).port, 65535);
    EXPECT_EQ(resolveAuditLogPath(parsedOptions({"--audit-log", "logs/"})), "logs/sentrova-audit.jsonl");
    EXPECT_EQ(resolveAuditLogPath(parsedOptions({"--audit-log", "/tmp"})), "/tmp/sentrova-audit.jsonl");
    EXPECT_EQ(resolveAuditLogPath(parsedOptions({"--audit-log", "a/b.jsonl"})), "a/b.jsonl");
    EXPECT_EQ(listenURL("::1", 80), "http://[::1]:80");
}

TEST(DevGatewayOptionsTests, RefusesOtherAddressesAndBadWords) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
        {{"--listen", "0.0.0.0:8787"}, "only loopback"},     {{"--listen", "192.168.1.5:8787"}, "only loopback"},
        {{"--listen", "[::]:8787"}, "only loopback"},        {{"--listen", "example.com:8787"}, "only loopback"},
        {{"--listen", "127.0.0.1"}, "HOST:PORT"},            {{"--port", "70000"}, "--port"},
        {{"--port", "-1"}, "--port"},                        {{"--policy"}, "missing value for --policy"},
        {{"--bogus"}, "unknown argument --bogus"},
    };
    for (const auto& [args, message] : refused) {
        EXPECT_NE(optionsError(args).find(message), std::string::npos) << args[0] << " " << message;
    }
}

// One POST to the gateway: the status (0 when no answer came) and the body.
static std::pair<int, std::string> post(int port, const std::string& path, const std::string& body,
                                 const httplib::Headers& headers = {}) {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(30, 0);
    auto answer = client.Post(path, headers, body, "application/json");
    return answer ? std::pair{answer->status, answer->body} : std::pair{0, std::string()};
}

TEST(DevGatewayServerTests, AnswersQuestionsFromThePolicyAndLogsThem) {
    RunningGateway gateway(kPolicy, std::nullopt);
    const int port = gateway.port();
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"echo","risk":"safe","workerName":"w"})"),
              std::pair(200, std::string(R"({"decision":"allow"})")));
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"rm"})").second, R"({"decision":"deny","reason":"never delete"})");
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"other"})").second,
              R"({"decision":"deny","reason":"no policy rule matched"})");
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(post(port, "/v1/toolcall", R"({"tool":"slow"})").second, R"({"decision":"allow"})");
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(400));
    EXPECT_EQ(post(port, "/v1/toolcall", "[1,2]").first, 400);
    EXPECT_EQ(post(port, "/v1/event", R"({"kind":"screenshot","base64":"iVBORw0KGgo=","mimeType":"image/png","workerName":"w"})")
                  .first,
              204);

    const std::vector<Json> records = gateway.auditRecords();
    ASSERT_EQ(records.size(), 6u);
    EXPECT_EQ(records[0].find("kind")->stringValue(), "toolcall");
    EXPECT_EQ(records[0].find("decision")->stringValue(), "allow");
    EXPECT_EQ(records[0].find("query")->find("workerName")->stringValue(), "w");
    EXPECT_EQ(records[1].find("reason")->stringValue(), "never delete");
    EXPECT_EQ(records[2].find("rule"), nullptr);
    EXPECT_EQ(records[4].find("kind")->stringValue(), "badRequest");
    const Json& screenshot = records[5];
    EXPECT_EQ(screenshot.find("event")->find("base64"), nullptr);
    EXPECT_EQ(screenshot.find("event")->find("base64Length")->intValue(), 12);
    ASSERT_NE(screenshot.find("screenshotFile"), nullptr);
    EXPECT_EQ(fs::file_size(screenshot.find("screenshotFile")->stringValue()), 8u);
}

TEST(DevGatewayServerTests, RequiresTheBearerTokenWhenSet) {
    RunningGateway gateway(kPolicy, "s3cret");
    const std::string body = R"({"tool":"echo"})";
    EXPECT_EQ(post(gateway.port(), "/v1/toolcall", body).first, 401);
    EXPECT_EQ(post(gateway.port(), "/v1/toolcall", body, {{"Authorization", "Bearer s3cre"}}).first, 401);
    EXPECT_EQ(post(gateway.port(), "/v1/event", "{}", {{"Authorization", "bearer s3cret"}}).first, 401);
    EXPECT_EQ(post(gateway.port(), "/v1/toolcall", body, {{"Authorization", "Bearer s3cret"}}),
              std::pair(200, std::string(R"({"decision":"allow"})")));

    const std::vector<Json> records = gateway.auditRecords();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].find("kind")->stringValue(), "unauthorized");
    EXPECT_EQ(records[2].find("path")->stringValue(), "/v1/event");
}

TEST(DevGatewayServerTests, StopCutsAPendingDelayShort) {
    auto gateway = std::make_unique<RunningGateway>(kPolicy, std::nullopt);
    std::thread asker([port = gateway->port()] { post(port, "/v1/toolcall", R"({"tool":"stuck"})"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto started = std::chrono::steady_clock::now();
    gateway.reset(); // stops and joins the server
    asker.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
}
