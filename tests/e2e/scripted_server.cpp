// A stand-in MCP server for end-to-end tests. Its arguments are a script, run left to right.
//
// Settings for the line handling of --serve / --serve-lines:
//   --echo                 write every received line back
//   --record PATH          append every received line (plus LF) to PATH
//   --tools JSON           answer tools/list with {"tools": JSON}
//   --tools-file PATH      answer tools/list with {"tools": the text of PATH}, read anew each time
//   --call-text TEXT       answer tools/call with one text block
//   --call-image B64 MIME  answer tools/call with one image block
//   --call-result JSON     answer tools/call with JSON as the result, exactly as given
// Actions:
//   --serve                handle stdin lines until end of stream
//   --serve-lines N        handle the next N lines
//   --stdout TEXT          write TEXT to stdout as it is (no LF added)
//   --stderr TEXT          write TEXT to stderr as it is
//   --write-lines N        write N numbered notification lines in one go
//   --write-long N         write one line of exactly N bytes before its LF
//   --env-json             write the environment as one JSON object line
//   --env-file PATH        write the environment to PATH, entries ended by NUL
//   --args-file PATH       write argv (program name included) to PATH, entries ended by NUL
//   --close-stdout         close standard output
//   --sleep MS             sleep
//   --exit N               exit with status N at once
//   --kill SIGNAL          send itself SIGNAL
// Without --exit the server exits 0 after the last word.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

extern char** environ;

namespace {

void writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                out += escaped;
            } else {
                out.push_back(static_cast<char>(c));
            }
        }
    }
    return out + "\"";
}

std::size_t skipBlanks(std::string_view text, std::size_t at) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
    return at;
}

// The raw JSON text of a top-level member's value, for the simple messages the tests send:
// a string (with its quotes) or a scalar up to the next ',' or '}'.
std::optional<std::string> memberText(std::string_view line, std::string_view name) {
    const std::string key = "\"" + std::string(name) + "\"";
    std::size_t at = line.find(key);
    if (at == std::string_view::npos) return std::nullopt;
    at = skipBlanks(line, at + key.size());
    if (at >= line.size() || line[at] != ':') return std::nullopt;
    at = skipBlanks(line, at + 1);
    if (at >= line.size()) return std::nullopt;
    std::size_t end = at;
    if (line[at] == '"') {
        for (end = at + 1; end < line.size() && line[end] != '"'; ++end) {
            if (line[end] == '\\') ++end;
        }
        return std::string(line.substr(at, end + 1 - at));
    }
    while (end < line.size() && line[end] != ',' && line[end] != '}') ++end;
    return std::string(line.substr(at, end - at));
}

std::string readFile(const std::string& path) {
    std::string contents;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return contents;
    char chunk[65536];
    for (;;) {
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        contents.append(chunk, static_cast<std::size_t>(count));
    }
    ::close(fd);
    return contents;
}

struct LineHandling {
    bool echo = false;
    int recordFd = -1;
    std::optional<std::string> toolsJSON;
    std::optional<std::string> toolsFile;
    std::optional<std::string> callResultJSON;

    void handle(const std::string& line) const {
        if (recordFd >= 0) writeAll(recordFd, line + "\n");
        if (echo) writeAll(STDOUT_FILENO, line + "\n");
        const auto method = memberText(line, "method");
        const auto id = memberText(line, "id");
        if (!method || !id) return;
        if (*method == "\"tools/list\"" && toolsFile) {
            // Read at every request, so a test can change the tools between two lists.
            answer(*id, "{\"tools\":" + readFile(*toolsFile) + "}");
        } else if (*method == "\"tools/list\"" && toolsJSON) {
            answer(*id, "{\"tools\":" + *toolsJSON + "}");
        } else if (*method == "\"tools/call\"" && callResultJSON) {
            answer(*id, *callResultJSON);
        }
    }

    static void answer(const std::string& id, const std::string& result) {
        writeAll(STDOUT_FILENO, "{\"jsonrpc\":\"2.0\",\"id\":" + id + ",\"result\":" + result + "}\n");
    }
};

// Reads stdin line by line; stops after maxLines lines (when given) or at end of stream.
class LineReader {
public:
    bool next(std::string& line) {
        for (;;) {
            const std::size_t lf = buffer_.find('\n', start_);
            if (lf != std::string::npos) {
                line.assign(buffer_, start_, lf - start_);
                start_ = lf + 1;
                return true;
            }
            if (ended_) {
                if (start_ == buffer_.size()) return false;
                line.assign(buffer_, start_);
                start_ = buffer_.size();
                return true;
            }
            buffer_.erase(0, start_);
            start_ = 0;
            char chunk[65536];
            const ssize_t count = ::read(STDIN_FILENO, chunk, sizeof chunk);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) ended_ = true;
            else buffer_.append(chunk, static_cast<std::size_t>(count));
        }
    }

private:
    std::string buffer_;
    std::size_t start_ = 0;
    bool ended_ = false;
};

void serve(LineReader& reader, const LineHandling& handling, std::optional<long> maxLines) {
    std::string line;
    for (long handled = 0; (!maxLines || handled < *maxLines) && reader.next(line); ++handled) {
        handling.handle(line);
    }
}

std::string environmentJSON() {
    std::string out = "{";
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const std::size_t equals = text.find('=');
        if (out.size() > 1) out += ",";
        out += jsonString(text.substr(0, equals)) + ":" +
               jsonString(equals == std::string_view::npos ? "" : text.substr(equals + 1));
    }
    return out + "}";
}

void writeFile(const std::string& path, const std::string& contents) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    writeAll(fd, contents);
    ::close(fd);
}

[[noreturn]] void usage(const std::string& word) {
    writeAll(STDERR_FILENO, "scripted_server: bad script word " + word + "\n");
    std::_Exit(2);
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_DFL);
    LineHandling handling;
    LineReader reader;
    std::string allArgs;
    for (int i = 0; i < argc; ++i) allArgs += std::string(argv[i]) + '\0';

    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage(word);
            return argv[++i];
        };
        auto number = [&]() -> long {
            const std::string text = value();
            char* end = nullptr;
            const long parsed = std::strtol(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0') usage(word + " " + text);
            return parsed;
        };

        if (word == "--echo") {
            handling.echo = true;
        } else if (word == "--record") {
            handling.recordFd = ::open(value().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        } else if (word == "--tools") {
            handling.toolsJSON = value();
        } else if (word == "--tools-file") {
            handling.toolsFile = value();
        } else if (word == "--call-result") {
            handling.callResultJSON = value();
        } else if (word == "--call-text") {
            handling.callResultJSON = "{\"content\":[{\"text\":" + jsonString(value()) + ",\"type\":\"text\"}]}";
        } else if (word == "--call-image") {
            const std::string data = value();
            const std::string mime = value();
            handling.callResultJSON = "{\"content\":[{\"data\":" + jsonString(data) +
                                      ",\"mimeType\":" + jsonString(mime) + ",\"type\":\"image\"}]}";
        } else if (word == "--serve") {
            serve(reader, handling, std::nullopt);
        } else if (word == "--serve-lines") {
            serve(reader, handling, number());
        } else if (word == "--stdout") {
            writeAll(STDOUT_FILENO, value());
        } else if (word == "--stderr") {
            writeAll(STDERR_FILENO, value());
        } else if (word == "--write-lines") {
            const long count = number();
            std::string lines;
            for (long n = 0; n < count; ++n) {
                lines += "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/message\",\"params\":{\"seq\":" +
                         std::to_string(n) + "}}\n";
            }
            writeAll(STDOUT_FILENO, lines);
        } else if (word == "--write-long") {
            const std::string head = "{\"pad\":\"";
            const std::string tail = "\"}";
            const long size = number();
            const long padding = size - static_cast<long>(head.size() + tail.size());
            if (padding < 0) usage(word);
            writeAll(STDOUT_FILENO, head + std::string(static_cast<std::size_t>(padding), 'x') + tail + "\n");
        } else if (word == "--env-json") {
            writeAll(STDOUT_FILENO, environmentJSON() + "\n");
        } else if (word == "--env-file") {
            std::string entries;
            for (char** entry = environ; *entry != nullptr; ++entry) entries += std::string(*entry) + '\0';
            writeFile(value(), entries);
        } else if (word == "--args-file") {
            writeFile(value(), allArgs);
        } else if (word == "--close-stdout") {
            ::close(STDOUT_FILENO);
        } else if (word == "--sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(number()));
        } else if (word == "--exit") {
            std::_Exit(static_cast<int>(number()));
        } else if (word == "--kill") {
            ::kill(::getpid(), static_cast<int>(number()));
            std::this_thread::sleep_for(std::chrono::seconds(5));
        } else {
            usage(word);
        }
    }
    return 0;
}
