#pragma once

// libcurl, loaded at run time on the first gateway request rather than linked: its dependency
// tree (TLS, IDN, HTTP/2, LDAP, Kerberos...) costs a relay that never asks the gateway several
// MiB of memory and milliseconds of start-up. The header is only needed for its types.

#include <curl/curl.h>

#include <memory>

namespace sentrova {

// The libcurl functions the gateway client calls, resolved from one loaded copy of the library.
struct CurlLibrary {
    decltype(&::curl_global_init) globalInit = nullptr;
    decltype(&::curl_slist_append) slistAppend = nullptr;
    decltype(&::curl_slist_free_all) slistFreeAll = nullptr;
    decltype(&::curl_easy_init) easyInit = nullptr;
    decltype(&::curl_easy_cleanup) easyCleanup = nullptr;
    decltype(&::curl_easy_setopt) easySetopt = nullptr;
    decltype(&::curl_easy_getinfo) easyGetinfo = nullptr;
    decltype(&::curl_multi_init) multiInit = nullptr;
    decltype(&::curl_multi_cleanup) multiCleanup = nullptr;
    decltype(&::curl_multi_add_handle) multiAddHandle = nullptr;
    decltype(&::curl_multi_remove_handle) multiRemoveHandle = nullptr;
    decltype(&::curl_multi_perform) multiPerform = nullptr;
    decltype(&::curl_multi_poll) multiPoll = nullptr;
    decltype(&::curl_multi_wakeup) multiWakeup = nullptr;
    decltype(&::curl_multi_info_read) multiInfoRead = nullptr;
    decltype(&::curl_multi_setopt) multiSetopt = nullptr;

    // The process's libcurl ("libcurl.so.4"), loaded and globally initialised on the first call
    // only; every later call returns the same answer. Null when it cannot be loaded or initialised.
    static const CurlLibrary* shared() noexcept;

    // Loads the named library and resolves every function, without initialising it; null when the
    // library or any function is missing. The library stays loaded for the life of the process.
    static std::unique_ptr<CurlLibrary> load(const char* soname) noexcept;
};

} // namespace sentrova
