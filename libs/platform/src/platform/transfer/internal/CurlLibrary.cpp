#include "platform/transfer/internal/CurlLibrary.h"

#include "platform/transfer/TransferService.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace platform::transfer {

namespace {

/// The interface that the headers describe has had this number since 2006.
constexpr auto Name = "libcurl.so.4";

[[noreturn]] void fail() {
  const char* reason = ::dlerror();
  std::fprintf(stderr, "%s: %s cannot be loaded: %s; install the package libcurl4\n",
               program_invocation_short_name, Name, reason ? reason : "?");
  std::_Exit(127);
}

template <typename Function> Function function(void* library, const char* name) {
  auto* address = ::dlsym(library, name);
  if (!address)
    fail();
  return reinterpret_cast<Function>(address);
}

} // namespace

CurlLibrary::CurlLibrary() {
  void* library = ::dlopen(Name, RTLD_LAZY | RTLD_LOCAL);
  if (!library)
    fail();
#define TAKE(name) name = function<decltype(name)>(library, "curl_" #name)
  TAKE(easy_cleanup);
  TAKE(easy_getinfo);
  TAKE(easy_init);
  TAKE(easy_pause);
  TAKE(easy_reset);
  TAKE(easy_setopt);
  TAKE(easy_strerror);
  TAKE(getdate);
  TAKE(multi_add_handle);
  TAKE(multi_cleanup);
  TAKE(multi_info_read);
  TAKE(multi_init);
  TAKE(multi_remove_handle);
  TAKE(multi_setopt);
  TAKE(multi_socket_action);
  TAKE(slist_append);
  TAKE(slist_free_all);
#undef TAKE
  function<decltype(&::curl_global_init)>(library, "curl_global_init")(CURL_GLOBAL_ALL);
}

const CurlLibrary& curl() {
  static const CurlLibrary library;
  return library;
}

} // namespace platform::transfer

namespace platform {

void prepareTransfers() {
  transfer::curl();
}

} // namespace platform
