// The server side of a server->client run: writes a prepared file to its standard output as fast
// as the reader takes it (splice, so the emitter itself costs next to nothing), closes its output,
// and reports "PID BYTES" on the result FIFO.
// Usage: e2e_emit DATA_FILE RESULT_FIFO

#include <vector>

#include <sys/stat.h>

#include "BenchSupport.hpp"

using namespace sentrova::bench;

namespace {

// Falls back to read/write when splice is refused (standard output not a pipe).
uint64_t copyWithReadWrite(int in, int out) {
    std::vector<char> buffer(1 << 20);
    uint64_t total = 0;
    for (;;) {
        ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!writeAll(out, buffer.data(), size_t(n))) break;
        total += uint64_t(n);
    }
    return total;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: e2e_emit DATA_FILE RESULT_FIFO\n");
        return 2;
    }
    blockReleaseSignal();
    int in = ::open(argv[1], O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        std::perror(argv[1]);
        return 1;
    }
    struct stat info{};
    fstat(in, &info);
    uint64_t total = 0;
    uint64_t size = uint64_t(info.st_size);
    while (total < size) {
        ssize_t n = splice(in, nullptr, 1, nullptr, size - total, SPLICE_F_MORE);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && total == 0 && (errno == EINVAL || errno == ENOSYS)) {
            total = copyWithReadWrite(in, 1);
            break;
        }
        if (n <= 0) break;
        total += uint64_t(n);
    }
    ::close(1);
    reportAndAwaitRelease(argv[2], std::to_string(getpid()) + " " + std::to_string(total) + "\n");
    return total == size ? 0 : 1;
}
