#include "kivHpsClientKit/LibcurlOptions.h"

#include <dlfcn.h>

#include <cstdarg>

// What a system's linker puts before the names of C.
#define KIV_TEXT_OF(text) #text
#define KIV_PREFIX_OF(prefix) KIV_TEXT_OF(prefix)

/// Under libcurl's name, but with an integer for the option: an enumeration may not be the last named
/// parameter.
extern "C" CURLcode seen_setopt(CURL* handle, unsigned option,
                                ...) __asm__(KIV_PREFIX_OF(__USER_LABEL_PREFIX__) "curl_easy_setopt");

CURLcode seen_setopt(CURL* handle, unsigned option, ...) {
    va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);
    va_end(arguments);
    static const auto real = reinterpret_cast<SetOption>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
    return on_option(real, handle, option, value);
}
