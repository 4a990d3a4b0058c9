#include "MCPBridgeCore/CurlLibrary.hpp"

#include <dlfcn.h>

#include <mutex>

namespace sentrova {

namespace {

constexpr const char* systemCurl = "libcurl.so.4";

template <typename Function> bool resolve(void* handle, const char* name, Function& into) {
    into = reinterpret_cast<Function>(::dlsym(handle, name));
    return into != nullptr;
}

} // namespace

std::unique_ptr<CurlLibrary> CurlLibrary::load(const char* soname) noexcept {
    try {
        // RTLD_LOCAL: libcurl's symbols must not take the place of anybody else's.
        void* handle = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) return nullptr;
        auto curl = std::make_unique<CurlLibrary>();
        bool complete = resolve(handle, "curl_global_init", curl->globalInit) &&
                        resolve(handle, "curl_slist_append", curl->slistAppend) &&
                        resolve(handle, "curl_slist_free_all", curl->slistFreeAll) &&
                        resolve(handle, "curl_easy_init", curl->easyInit) &&
                        resolve(handle, "curl_easy_cleanup", curl->easyCleanup) &&
                        resolve(handle, "curl_easy_setopt", curl->easySetopt) &&
                        resolve(handle, "curl_easy_getinfo", curl->easyGetinfo) &&
                        resolve(handle, "curl_multi_init", curl->multiInit) &&
                        resolve(handle, "curl_multi_cleanup", curl->multiCleanup) &&
                        resolve(handle, "curl_multi_add_handle", curl->multiAddHandle) &&
                        resolve(handle, "curl_multi_remove_handle", curl->multiRemoveHandle) &&
                        resolve(handle, "curl_multi_perform", curl->multiPerform) &&
                        resolve(handle, "curl_multi_poll", curl->multiPoll) &&
                        resolve(handle, "curl_multi_wakeup", curl->multiWakeup) &&
                        resolve(handle, "curl_multi_info_read", curl->multiInfoRead) &&
                        resolve(handle, "curl_multi_setopt", curl->multiSetopt);
        if (!complete) {
            // Too old a libcurl (curl_multi_poll and curl_multi_wakeup came with 7.68).
            ::dlclose(handle);
            return nullptr;
        }
        return curl;
    } catch (...) {
        return nullptr;
    }
}

const CurlLibrary* CurlLibrary::shared() noexcept {
    // Loaded at most once per process and never unloaded: transfers on any client may still run
    // while the process ends. curl_global_init is not safe to race, hence the once.
    static std::once_flag once;
    static const CurlLibrary* loaded = nullptr;
    try {
        std::call_once(once, [] {
            std::unique_ptr<CurlLibrary> curl = load(systemCurl);
            if (curl && curl->globalInit(CURL_GLOBAL_DEFAULT) == CURLE_OK) loaded = curl.release();
        });
    } catch (...) {
        return nullptr;
    }
    return loaded;
}

} // namespace sentrova
