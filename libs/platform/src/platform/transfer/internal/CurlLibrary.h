#pragma once

#include <curl/curl.h>

namespace platform::transfer {

/// libcurl's functions, named as there without "curl_".
///
/// It brings some forty libraries, and linking them takes longer than all else that a program does which only
/// looks at its downloads. So it is loaded when something is transferred. It stays until the process ends.
struct CurlLibrary {
  decltype(&::curl_easy_cleanup) easy_cleanup;
  decltype(&::curl_easy_getinfo) easy_getinfo;
  decltype(&::curl_easy_init) easy_init;
  decltype(&::curl_easy_pause) easy_pause;
  decltype(&::curl_easy_reset) easy_reset;
  decltype(&::curl_easy_setopt) easy_setopt;
  decltype(&::curl_easy_strerror) easy_strerror;
  decltype(&::curl_getdate) getdate;
  decltype(&::curl_multi_add_handle) multi_add_handle;
  decltype(&::curl_multi_cleanup) multi_cleanup;
  decltype(&::curl_multi_info_read) multi_info_read;
  decltype(&::curl_multi_init) multi_init;
  decltype(&::curl_multi_remove_handle) multi_remove_handle;
  decltype(&::curl_multi_setopt) multi_setopt;
  decltype(&::curl_multi_socket_action) multi_socket_action;
  decltype(&::curl_slist_append) slist_append;
  decltype(&::curl_slist_free_all) slist_free_all;

private:
  CurlLibrary();
  friend const CurlLibrary& curl();
};

/// The library, ready for use; the first call loads it. For any thread, but not under a lock. An installation
/// without it ends the process as the system's own loader would, with a line that says what is missing.
const CurlLibrary& curl();

} // namespace platform::transfer
