// libFuzzer entry: see checks/RouterChecks.hpp for the input layout and the properties checked.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "checks/RouterChecks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string fault = sentrova::fuzzcheck::checkRouterInput(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!fault.empty()) {
        std::fprintf(stderr, "property violated: %s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
