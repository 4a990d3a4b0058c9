#include "MCPBridgeCore/RequestUUID.hpp"

#include <openssl/rand.h>

#include <chrono>
#include <random>

namespace sentrova {

namespace {

// Used only when the system's CSPRNG cannot be reached: the ids must still be unique per call.
std::array<std::uint8_t, 16> fallbackRandomBytes() {
    std::array<std::uint8_t, 16> bytes{};
    try {
        std::random_device device;
        for (std::size_t i = 0; i < bytes.size(); i += 4) {
            const std::uint32_t word = device();
            for (std::size_t j = 0; j < 4; ++j) {
                bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
            }
        }
    } catch (...) {
        // No entropy source at all: a clock-seeded generator still keeps ids distinct.
        thread_local std::mt19937_64 generator(
            static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
            static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()));
        for (std::size_t i = 0; i < bytes.size(); i += 8) {
            const std::uint64_t word = generator();
            for (std::size_t j = 0; j < 8; ++j) {
                bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
            }
        }
    }
    return bytes;
}

} // namespace

std::string formatUUIDv4(std::array<std::uint8_t, 16> bytes) {
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

std::string makeRequestUUID() {
    std::array<std::uint8_t, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        bytes = fallbackRandomBytes();
    }
    return formatUUIDv4(bytes);
}

} // namespace sentrova
