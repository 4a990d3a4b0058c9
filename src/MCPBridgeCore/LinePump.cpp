#include "MCPBridgeCore/LinePump.hpp"

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <memory>
#include <optional>

#include <poll.h>
#include <unistd.h>

namespace sentrova {

namespace {

constexpr std::size_t initialCapacity = 256 * 1024;
constexpr std::size_t minimumReadSize = 64 * 1024;

// A line handed on gets one spare byte: the relay appends the LF in place, and a string exactly
// as large as the line would have to reallocate (and copy a large line once more) for it.
std::string lineCopy(const char* bytes, std::size_t size) {
    std::string line;
    line.reserve(size + 1);
    line.assign(bytes, size);
    return line;
}

// One pump's bytes: [start, end) is read and not yet handed on; [0, start) is spent.
// Lines are consumed by moving start forward; the live bytes are moved to the front only
// when the free tail gets short, so a long line is moved at most once before it grows.
class PumpBuffer {
public:
    PumpBuffer() : data_(new char[initialCapacity]), capacity_(initialCapacity) {}

    // Room for at least minimumReadSize bytes after end.
    void reserveTail() {
        if (capacity_ - end_ >= minimumReadSize) return;
        if (start_ > 0) {
            std::memmove(data_.get(), data_.get() + start_, end_ - start_);
            end_ -= start_;
            scanned_ -= start_;
            start_ = 0;
        }
        if (capacity_ - end_ >= minimumReadSize) return;
        std::size_t grown = capacity_ * 2;
        while (grown - end_ < minimumReadSize) grown *= 2;
        std::unique_ptr<char[]> bigger(new char[grown]); // uninitialised on purpose
        std::memcpy(bigger.get(), data_.get(), end_);
        data_ = std::move(bigger);
        capacity_ = grown;
    }

    char* tail() { return data_.get() + end_; }
    std::size_t tailSize() const { return capacity_ - end_; }
    void appended(std::size_t count) { end_ += count; }

    // Hands every complete non-empty line to the sink, each as its own string, saying whether
    // another complete line is already in hand after it.
    void deliverLines(const LineSink& sink) {
        char* const base = data_.get();
        std::optional<Span> line = nextLine(start_);
        while (line) {
            const std::optional<Span> following = nextLine(line->end + 1);
            sink(lineCopy(base + line->start, line->end - line->start), following.has_value());
            start_ = line->end + 1;
            line = following;
        }
        // No complete line is left in [start, end): skip the empty ones and search on from the end.
        scanned_ = lastLineFeedFrom(start_);
        start_ = scanned_;
        if (start_ == end_) start_ = end_ = scanned_ = 0;
        else scanned_ = end_;
    }

    void deliverRest(const LineSink& sink) {
        if (end_ > start_) sink(lineCopy(data_.get() + start_, end_ - start_), false);
        start_ = end_ = scanned_ = 0;
    }

private:
    struct Span {
        std::size_t start;
        std::size_t end; // the LF
    };
    // The first non-empty complete line starting at or after from (empty ones skipped); the
    // search for its LF starts at scanned_ at the earliest.
    std::optional<Span> nextLine(std::size_t from) const {
        const char* const base = data_.get();
        std::size_t searchFrom = std::max(from, scanned_);
        while (searchFrom < end_) {
            const void* found = std::memchr(base + searchFrom, '\n', end_ - searchFrom);
            if (found == nullptr) return std::nullopt;
            const auto lineEnd = static_cast<std::size_t>(static_cast<const char*>(found) - base);
            if (lineEnd > from) return Span{from, lineEnd};
            from = searchFrom = lineEnd + 1;
        }
        return std::nullopt;
    }
    // Just past the last LF in [from, end), or from when there is none.
    std::size_t lastLineFeedFrom(std::size_t from) const {
        const char* const base = data_.get();
        const void* found = ::memrchr(base + from, '\n', end_ - from);
        return found == nullptr ? from : static_cast<std::size_t>(static_cast<const char*>(found) - base) + 1;
    }

    std::unique_ptr<char[]> data_;
    std::size_t capacity_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    std::size_t scanned_ = 0; // no LF in [start, scanned)
};

// Whatever the stream has now, waiting for at least one byte. 0 at the end of the stream;
// a read error counts as the end too.
std::size_t readSome(int fd, char* into, std::size_t capacity) {
    for (;;) {
        const ssize_t count = ::read(fd, into, capacity);
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            // A descriptor inherited in non-blocking mode: wait for it instead of ending the pump.
            pollfd readable{fd, POLLIN, 0};
            if (::poll(&readable, 1, -1) >= 0 || errno == EINTR) continue;
        }
        return 0;
    }
}

} // namespace

void pumpLines(int fd, const LineSink& sink, const ReadWatcher& watchReads) {
    PumpBuffer buffer;
    for (;;) {
        buffer.reserveTail();
        if (watchReads) watchReads(true);
        const std::size_t count = readSome(fd, buffer.tail(), buffer.tailSize());
        if (watchReads) watchReads(false);
        if (count == 0) break;
        buffer.appended(count);
        buffer.deliverLines(sink);
    }
    buffer.deliverRest(sink);
}

} // namespace sentrova
