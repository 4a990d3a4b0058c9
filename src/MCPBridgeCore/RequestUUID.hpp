#pragma once

// Request ids for gateway queries: random version 4 UUIDs in upper-case text.

#include <array>
#include <cstdint>
#include <string>

namespace sentrova {

// A fresh random UUID as 36 characters, 8-4-4-4-12 upper-case hexadecimal digits, e.g.
// "3F2504E0-4F89-41D3-9A0C-0305E82C3301". Never fails.
std::string makeRequestUUID();

// The text of 16 bytes as a version 4 UUID (the version and variant bits are set here).
std::string formatUUIDv4(std::array<std::uint8_t, 16> bytes);

} // namespace sentrova
