// The measuring side of the end-to-end benchmark. Each call does one measurement and prints one
// line of numbers; bench/e2e/run.sh interleaves the calls and bench/e2e/summarise.py takes medians.
//
//   e2e_driver gen small-c2s|small-s2c|large COUNT OUT_FILE
//       writes COUNT lines; prints "BYTES SHA256 LONGEST_LINE"
//   e2e_driver throughput c2s|s2c DATA_FILE SHA256 RESULT_FIFO -- RELAY_ARGV...
//       c2s: writes DATA_FILE into the relay's standard input; its e2e_sink reports on RESULT_FIFO.
//       s2c: the relay's e2e_emit writes DATA_FILE; the driver reads and hashes the relay's output.
//       prints "SECONDS PEAK_RSS_KIB CPU_MS" of the relay process itself (VmHWM and user + system
//       time of all its threads, read while it still runs; the cat chain's shell reports its own)
//   e2e_driver startup -- ARGV...
//       prints the seconds from launch to the answer of initialize
//   e2e_driver rtt CALLS WARMUP STATS_HOST:PORT|- -- ARGV...
//       prints "P50_US P99_US MEAN_US" of tools/call round trips; with a gateway given, checks that
//       the gateway was asked once per call
// Every check that fails (hash, size, exit status, answer) prints a reason and exits 1.

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <fstream>
#include <iterator>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "BenchSupport.hpp"

extern char** environ;

using namespace sentrova::bench;

namespace {

constexpr int kStallMillis = 300'000; // no progress for this long means the relay is stuck

// The process group of the relay under test: the relay and the peers it started.
pid_t relayGroup = -1;

// A failed run takes its relay and peers down with it, so that nothing is left waiting.
[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "e2e_driver: %s\n", message.c_str());
    if (relayGroup > 0) kill(-relayGroup, SIGKILL);
    std::exit(1);
}

// ---- data -------------------------------------------------------------------------------------

class Random {
public:
    explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }

private:
    uint64_t state_;
};

// Random base64 text of exactly `length` characters (a multiple of 4 is a complete encoding).
void appendBase64(std::string& out, size_t length, Random& random) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    size_t start = out.size();
    out.resize(start + length);
    char* p = out.data() + start;
    uint64_t bits = 0;
    int left = 0;
    for (size_t i = 0; i < length; ++i) {
        if (left == 0) {
            bits = random.next();
            left = 10;
        }
        p[i] = alphabet[bits & 63];
        bits >>= 6;
        --left;
    }
}

// Each small line is about 120 bytes with its LF; client lines are requests, server lines answers.
std::string smallLine(bool fromClient, uint64_t i) {
    char line[256];
    if (fromClient)
        std::snprintf(line, sizeof line,
                      "{\"jsonrpc\":\"2.0\",\"id\":%" PRIu64
                      ",\"method\":\"resources/read\",\"params\":{\"uri\":\"file:///workspace/src/mod_%06" PRIu64
                      "/notes.md\"}}\n",
                      i, i);
    else
        std::snprintf(line, sizeof line,
                      "{\"jsonrpc\":\"2.0\",\"id\":%" PRIu64
                      ",\"result\":{\"contents\":[{\"uri\":\"file:///w/m%06" PRIu64
                      ".md\",\"mimeType\":\"text/plain\",\"text\":\"ok\"}]}}\n",
                      i, i);
    return line;
}

// A tool result of exactly 1 MiB including its LF, with one base64 image block.
std::string largeLine(uint64_t i, Random& random) {
    constexpr size_t kLineBytes = 1 << 20;
    std::string head = "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(100000 + i) +
                       ",\"result\":{\"content\":[{\"type\":\"image\",\"mimeType\":\"image/png\",\"data\":\"";
    std::string tail = "\"}],\"isError\":false}}";
    size_t room = kLineBytes - 1 - head.size() - tail.size();
    size_t dataLength = room / 4 * 4;
    std::string line;
    line.reserve(kLineBytes);
    line += head;
    appendBase64(line, dataLength, random);
    line += tail;
    line.append(room - dataLength, ' '); // JSON white space after the value keeps the size exact
    line += '\n';
    return line;
}

int generate(const std::string& kind, uint64_t count, const std::string& path) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) fail("cannot write " + path);
    Sha256 hash;
    uint64_t total = 0;
    size_t longest = 0;
    Random random(42);
    for (uint64_t i = 1; i <= count; ++i) {
        std::string line;
        if (kind == "small-c2s") line = smallLine(true, i);
        else if (kind == "small-s2c") line = smallLine(false, i);
        else if (kind == "large") line = largeLine(i, random);
        else fail("unknown data kind " + kind);
        out.write(line.data(), std::streamsize(line.size()));
        hash.update(line.data(), line.size());
        total += line.size();
        longest = std::max(longest, line.size());
    }
    out.close();
    if (!out) fail("write failed: " + path);
    std::printf("%" PRIu64 " %s %zu\n", total, hash.hex().c_str(), longest);
    return 0;
}

std::string readWholeFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("cannot open " + path);
    struct stat info{};
    fstat(fd, &info);
    std::string data(size_t(info.st_size), '\0'); // written here, so every page is touched before timing
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::read(fd, data.data() + done, data.size() - done);
        if (n <= 0) fail("short read of " + path);
        done += size_t(n);
    }
    ::close(fd);
    return data;
}

// ---- processes --------------------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    int input = -1;  // our end of the child's standard input
    int output = -1; // our end of the child's standard output
};

Child spawnWithPipes(const std::vector<std::string>& argv) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) fail("pipe2 failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    Child child;
    int rc = posix_spawnp(&child.pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) fail("cannot start " + argv[0] + ": " + std::strerror(rc));
    relayGroup = child.pid;
    ::close(in[0]);
    ::close(out[1]);
    child.input = in[1];
    child.output = out[0];
    return child;
}

// Waits up to `seconds` for the child; a child that does not end is killed and counts as a failure.
int waitForExit(pid_t pid, double seconds, const std::string& what) {
    int64_t limit = nowNanos() + int64_t(seconds * 1e9);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            if (WIFEXITED(status)) return WEXITSTATUS(status);
            return 128 + WTERMSIG(status);
        }
        if (r < 0) fail("waitpid failed for " + what);
        if (nowNanos() > limit) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            fail(what + " did not exit");
        }
        usleep(1000);
    }
}

// Peak resident set of a running process, in KiB; -1 once it has gone.
long peakResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

// CPU time (user + system) a running process has used so far, all its threads, in milliseconds;
// -1 once it has gone. Children it has not reaped are not in it.
long cpuMillis(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t afterName = text.rfind(')');
    if (afterName == std::string::npos) return -1;
    std::vector<std::string> fields;
    std::istringstream rest(text.substr(afterName + 2));
    for (std::string field; rest >> field;) fields.push_back(field);
    if (fields.size() < 13) return -1;
    // Fields 14 and 15 of the file (utime, stime) are 11 and 12 here, counted from field 3.
    long ticks = std::stol(fields[11]) + std::stol(fields[12]);
    return ticks * 1000 / sysconf(_SC_CLK_TCK);
}

bool waitReadable(int fd, int millis) {
    pollfd p{fd, POLLIN, 0};
    for (;;) {
        int r = poll(&p, 1, millis);
        if (r < 0 && errno == EINTR) continue;
        return r > 0;
    }
}

// Reads LF-terminated lines from a descriptor, with a stall limit.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd) {}

    // The next line without its LF; false at end of stream.
    bool next(std::string& line, int stallMillis = kStallMillis) {
        for (;;) {
            size_t lf = buffer_.find('\n', start_);
            if (lf != std::string::npos) {
                line.assign(buffer_, start_, lf - start_);
                start_ = lf + 1;
                return true;
            }
            if (start_ > 0) {
                buffer_.erase(0, start_);
                start_ = 0;
            }
            if (!waitReadable(fd_, stallMillis)) fail("no answer within the time limit");
            char chunk[65536];
            ssize_t n = ::read(fd_, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            buffer_.append(chunk, size_t(n));
        }
    }

private:
    int fd_;
    std::string buffer_;
    size_t start_ = 0;
};

// ---- throughput -------------------------------------------------------------------------------

struct PeerReport {
    pid_t pid = -1;
    uint64_t bytes = 0;
    std::string hash;   // sink only
    int64_t endNanos = 0; // sink only
};

PeerReport readReport(int fifo, bool fromSink) {
    LineReader reader(fifo);
    std::string line;
    if (!reader.next(line)) fail("result FIFO closed");
    PeerReport report;
    char hash[80] = {0};
    long long pid = 0, end = 0;
    unsigned long long bytes = 0;
    int fields = fromSink ? std::sscanf(line.c_str(), "%lld %llu %70s %lld", &pid, &bytes, hash, &end)
                          : std::sscanf(line.c_str(), "%lld %llu", &pid, &bytes);
    if (fields != (fromSink ? 4 : 2)) fail("bad peer report: " + line);
    report.pid = pid_t(pid);
    report.bytes = bytes;
    report.hash = hash;
    report.endNanos = end;
    return report;
}

int throughputClientToServer(const std::string& data, const std::string& expectHash, int fifo,
                             const std::vector<std::string>& relay) {
    std::atomic<uint64_t> unexpected{0};
    int64_t start = nowNanos();
    Child child = spawnWithPipes(relay);
    // The relay must say nothing toward the client here; count anything it does say.
    std::thread drain([&] {
        char chunk[65536];
        for (;;) {
            ssize_t n = ::read(child.output, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            unexpected += uint64_t(n);
        }
    });
    if (!writeAll(child.input, data.data(), data.size())) fail("the relay stopped reading its input");
    ::close(child.input);
    PeerReport sink = readReport(fifo, true);
    long rss = peakResidentKiB(child.pid);
    long cpu = cpuMillis(child.pid);
    kill(sink.pid, SIGUSR1);
    int status = waitForExit(child.pid, 60, "the relay");
    drain.join();
    ::close(child.output);
    if (sink.bytes != data.size())
        fail("sink received " + std::to_string(sink.bytes) + " of " + std::to_string(data.size()) + " bytes");
    if (sink.hash != expectHash) fail("sink hash differs from the input's");
    if (unexpected != 0) fail("the relay wrote " + std::to_string(unexpected.load()) + " bytes toward the client");
    if (status != 0) fail("the relay exited with status " + std::to_string(status));
    std::printf("%.6f %ld %ld\n", double(sink.endNanos - start) / 1e9, rss, cpu);
    return 0;
}

int throughputServerToClient(uint64_t expectBytes, const std::string& expectHash, int fifo,
                             const std::vector<std::string>& relay) {
    CaptureBuffer received;
    int64_t start = nowNanos();
    Child child = spawnWithPipes(relay);
    auto readSome = [&]() -> bool {
        if (!waitReadable(child.output, kStallMillis)) fail("the relay's output stalled");
        return received.readFrom(child.output) > 0;
    };
    while (received.total() < expectBytes && readSome()) {
    }
    int64_t end = nowNanos();
    if (received.total() < expectBytes)
        fail("client received " + std::to_string(received.total()) + " of " + std::to_string(expectBytes) + " bytes");
    PeerReport emitter = readReport(fifo, false);
    long rss = peakResidentKiB(child.pid);
    long cpu = cpuMillis(child.pid);
    ::close(child.input);
    kill(emitter.pid, SIGUSR1);
    while (readSome()) { // anything after the expected bytes is a fault that the checks below show
    }
    int status = waitForExit(child.pid, 60, "the relay");
    ::close(child.output);
    if (emitter.bytes != expectBytes) fail("emitter wrote " + std::to_string(emitter.bytes) + " bytes");
    if (received.total() != expectBytes)
        fail("client received " + std::to_string(received.total()) + " bytes, expected " + std::to_string(expectBytes));
    if (received.finishHash() != expectHash) fail("client hash differs from the emitted data's");
    if (status != 0) fail("the relay exited with status " + std::to_string(status));
    std::printf("%.6f %ld %ld\n", double(end - start) / 1e9, rss, cpu);
    return 0;
}

// ---- start-up and round trips -----------------------------------------------------------------

const char* const kInitialize =
    "{\"jsonrpc\":\"2.0\",\"id\":0,\"method\":\"initialize\",\"params\":{\"protocolVersion\":\"2025-06-18\","
    "\"capabilities\":{},\"clientInfo\":{\"name\":\"e2e-driver\",\"version\":\"1.0.0\"}}}\n";

void expectAnswer(LineReader& reader, const std::string& idText, const char* mustContain) {
    std::string line;
    if (!reader.next(line)) fail("the relay closed its output");
    if (line.find("\"id\":" + idText + ",") == std::string::npos || line.find(mustContain) == std::string::npos)
        fail("unexpected answer: " + line.substr(0, 300));
}

int startup(const std::vector<std::string>& argv) {
    int64_t start = nowNanos();
    Child child = spawnWithPipes(argv);
    writeAll(child.input, kInitialize);
    LineReader reader(child.output);
    expectAnswer(reader, "0", "\"protocolVersion\"");
    int64_t end = nowNanos();
    ::close(child.input);
    int status = waitForExit(child.pid, 30, argv[0]);
    ::close(child.output);
    if (status != 0) fail(argv[0] + " exited with status " + std::to_string(status));
    std::printf("%.6f\n", double(end - start) / 1e9);
    return 0;
}

// The gateway's count of decisions, from one plain HTTP/1.0 GET of /stats.
uint64_t gatewayDecisions(const std::string& hostPort) {
    size_t colon = hostPort.rfind(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(std::stoi(hostPort.substr(colon + 1))));
    if (inet_pton(AF_INET, hostPort.substr(0, colon).c_str(), &address.sin_addr) != 1) fail("bad gateway address " + hostPort);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("cannot reach the gateway at " + hostPort);
    writeAll(fd, "GET /stats HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n");
    std::string answer;
    char chunk[4096];
    for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;) answer.append(chunk, size_t(n));
    ::close(fd);
    size_t body = answer.find("\r\n\r\n");
    if (answer.rfind("HTTP/1.1 200", 0) != 0 || body == std::string::npos) fail("cannot read the gateway's counters");
    return std::stoull(answer.substr(body + 4));
}

int roundTrips(int calls, int warmup, const std::string& statsHostPort, const std::vector<std::string>& argv) {
    bool checkGateway = statsHostPort != "-";
    uint64_t decisionsBefore = checkGateway ? gatewayDecisions(statsHostPort) : 0;
    Child child = spawnWithPipes(argv);
    LineReader reader(child.output);
    writeAll(child.input, kInitialize);
    expectAnswer(reader, "0", "\"protocolVersion\"");
    writeAll(child.input, "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n");
    writeAll(child.input, "{\"jsonrpc\":\"2.0\",\"id\":\"list\",\"method\":\"tools/list\"}\n");
    expectAnswer(reader, "\"list\"", "\"echo\"");
    std::vector<double> micros;
    micros.reserve(size_t(calls));
    for (int i = 1; i <= warmup + calls; ++i) {
        std::string id = std::to_string(i);
        std::string call = "{\"jsonrpc\":\"2.0\",\"id\":" + id +
                           ",\"method\":\"tools/call\",\"params\":{\"name\":\"echo\",\"arguments\":{\"text\":\"hello\"}}}\n";
        int64_t sent = nowNanos();
        writeAll(child.input, call);
        expectAnswer(reader, id, "\"text\":\"ok\"");
        int64_t answered = nowNanos();
        if (i > warmup) micros.push_back(double(answered - sent) / 1e3);
    }
    ::close(child.input);
    int status = waitForExit(child.pid, 30, argv[0]);
    ::close(child.output);
    if (status != 0) fail(argv[0] + " exited with status " + std::to_string(status));
    if (checkGateway) {
        uint64_t asked = gatewayDecisions(statsHostPort) - decisionsBefore;
        if (asked != uint64_t(warmup + calls))
            fail("the gateway was asked " + std::to_string(asked) + " times for " + std::to_string(warmup + calls) + " calls");
    }
    std::sort(micros.begin(), micros.end());
    auto rank = [&](double q) { return micros[std::min(micros.size() - 1, size_t(q * double(micros.size())))]; };
    double mean = std::accumulate(micros.begin(), micros.end(), 0.0) / double(micros.size());
    std::printf("%.1f %.1f %.1f\n", rank(0.50), rank(0.99), mean);
    return 0;
}

std::vector<std::string> argvAfterSeparator(int argc, char** argv, int from) {
    for (int i = from; i < argc; ++i)
        if (std::string(argv[i]) == "--") {
            std::vector<std::string> rest(argv + i + 1, argv + argc);
            if (rest.empty()) break;
            return rest;
        }
    fail("missing '-- COMMAND...'");
}

} // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "gen" && argc == 5) return generate(argv[2], std::stoull(argv[3]), argv[4]);
    if (mode == "throughput" && argc > 6) {
        std::string direction = argv[2];
        int fifo = ::open(argv[5], O_RDWR | O_CLOEXEC); // read-write: opening never blocks, never sees EOF
        if (fifo < 0) fail(std::string("cannot open FIFO ") + argv[5]);
        auto relay = argvAfterSeparator(argc, argv, 6);
        if (direction == "c2s") return throughputClientToServer(readWholeFile(argv[3]), argv[4], fifo, relay);
        if (direction == "s2c") {
            struct stat info{};
            if (stat(argv[3], &info) != 0) fail(std::string("cannot stat ") + argv[3]);
            return throughputServerToClient(uint64_t(info.st_size), argv[4], fifo, relay);
        }
    }
    if (mode == "startup") return startup(argvAfterSeparator(argc, argv, 2));
    if (mode == "rtt" && argc > 5)
        return roundTrips(std::stoi(argv[2]), std::stoi(argv[3]), argv[4], argvAfterSeparator(argc, argv, 5));
    std::fprintf(stderr, "usage: see the head of bench/e2e/e2e_driver.cpp\n");
    return 2;
}
