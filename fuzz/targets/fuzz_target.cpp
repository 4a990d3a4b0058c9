// libFuzzer entry for one property set: SENTROVA_FUZZ_CHECK names its check (fuzz/CMakeLists.txt);
// the input layout and the properties are described in checks/*.hpp.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "checks/JsonChecks.hpp"
#include "checks/RouterChecks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string fault =
        sentrova::fuzzcheck::SENTROVA_FUZZ_CHECK(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!fault.empty()) {
        std::fprintf(stderr, "property violated: %s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
