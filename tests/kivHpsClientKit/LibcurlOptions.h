/// Stands before libcurl's curl_easy_setopt: a source of the programs that use it.
#ifndef KIV_TEST_LIBCURL_OPTIONS_H
#define KIV_TEST_LIBCURL_OPTIONS_H

#include <curl/curl.h>

using SetOption = CURLcode (*)(CURL*, unsigned, ...);

/// The test's: what happens with an option. Each value fills one register, so that all of them pass as a
/// pointer would.
CURLcode on_option(SetOption real, CURL* handle, unsigned option, void* value);

#endif
