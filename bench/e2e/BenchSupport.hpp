#pragma once

// Small pieces shared by the end-to-end benchmark programs: a clock that every process of a run
// reads alike, whole writes, SHA-256 in hex, and the hand-shake over the result FIFO.

#include <openssl/evp.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace sentrova::bench {

// CLOCK_MONOTONIC is system-wide, so the sink's end time and the driver's start time compare.
inline int64_t nowNanos() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

inline bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= size_t(n);
    }
    return true;
}

inline bool writeAll(int fd, std::string_view text) { return writeAll(fd, text.data(), text.size()); }

class Sha256 {
public:
    Sha256() : ctx_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr); }
    ~Sha256() { EVP_MD_CTX_free(ctx_); }
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(const void* data, size_t size) { EVP_DigestUpdate(ctx_, data, size); }

    std::string hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(ctx_, digest, &length);
        static const char digits[] = "0123456789abcdef";
        std::string out;
        for (unsigned int i = 0; i < length; ++i) {
            out += digits[digest[i] >> 4];
            out += digits[digest[i] & 15];
        }
        return out;
    }

private:
    EVP_MD_CTX* ctx_;
};

// Keeps what a reader receives in one large buffer and hashes it only when asked, so that hashing
// stays out of the timed part of a run. Huge pages keep the cost of first touching the memory low.
// Past the buffer's size it hashes what it holds and starts over, so any length works.
class CaptureBuffer {
public:
    static constexpr size_t kCapacity = size_t(1) << 30;

    CaptureBuffer() {
        void* p = mmap(nullptr, kCapacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED) {
            std::perror("mmap");
            std::exit(1);
        }
        madvise(p, kCapacity, MADV_HUGEPAGE);
        base_ = static_cast<char*>(p);
    }
    ~CaptureBuffer() { munmap(base_, kCapacity); }
    CaptureBuffer(const CaptureBuffer&) = delete;
    CaptureBuffer& operator=(const CaptureBuffer&) = delete;

    // One read of at most 1 MiB: the byte count, 0 at end of stream, -1 on error (EINTR retried).
    ssize_t readFrom(int fd) {
        if (used_ + kReadSize > kCapacity) {
            hash_.update(base_, used_);
            used_ = 0;
        }
        for (;;) {
            ssize_t n = ::read(fd, base_ + used_, kReadSize);
            if (n < 0 && errno == EINTR) continue;
            if (n > 0) {
                used_ += size_t(n);
                total_ += uint64_t(n);
            }
            return n;
        }
    }

    uint64_t total() const { return total_; }

    std::string finishHash() {
        hash_.update(base_, used_);
        used_ = 0;
        return hash_.hex();
    }

private:
    static constexpr size_t kReadSize = size_t(1) << 20;
    char* base_ = nullptr;
    size_t used_ = 0;
    uint64_t total_ = 0;
    Sha256 hash_;
};

// A peer that has done its part reports on the FIFO and then stays alive until the driver sends
// SIGUSR1, so that the relay in front of it is still running when the driver reads its peak memory.
// A peer whose driver went away gives up after a minute rather than linger.
inline void reportAndAwaitRelease(const char* fifoPath, std::string_view report) {
    sigset_t release;
    sigemptyset(&release);
    sigaddset(&release, SIGUSR1);
    int fd = ::open(fifoPath, O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        writeAll(fd, report);
        ::close(fd);
    }
    timespec limit{60, 0};
    sigtimedwait(&release, nullptr, &limit);
}

// SIGUSR1 must be blocked before the report goes out, or the release could come first and kill us.
inline void blockReleaseSignal() {
    sigset_t release;
    sigemptyset(&release);
    sigaddset(&release, SIGUSR1);
    sigprocmask(SIG_BLOCK, &release, nullptr);
}

} // namespace sentrova::bench
