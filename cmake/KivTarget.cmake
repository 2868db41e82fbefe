# What every target of the project has in common.

# Installed programs and libraries find their libraries beside them.
set(KIV_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}" $ORIGIN)
if(APPLE)
  set(KIV_INSTALL_RPATH @loader_path/../${CMAKE_INSTALL_LIBDIR} @loader_path)
endif()

# What makes faults of memory harder to exploit, in the builds that are shipped: those that are optimised. docs/security.md
# lists them.
set(kiv_flags "${CMAKE_CXX_FLAGS}")
if(CMAKE_BUILD_TYPE)
  string(TOUPPER ${CMAKE_BUILD_TYPE} type)
  string(APPEND kiv_flags " ${CMAKE_CXX_FLAGS_${type}}")
endif()
set(KIV_HARDENING AUTO CACHE STRING
    "Stack protector, fortified C library, stack clash and control flow protection, RELRO, PIE. AUTO: in optimised builds")
set(kiv_hardened ${KIV_HARDENING})
if(KIV_HARDENING STREQUAL "AUTO")
  set(kiv_hardened OFF)
  if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND CMAKE_CXX_COMPILER_ID MATCHES "^(GNU|Clang)$" AND NOT KIV_SANITIZE
     AND NOT KIV_COVERAGE AND kiv_flags MATCHES "(^| )-O(fast|[1-3s])")
    set(kiv_hardened ON)
  endif()
endif()
if(kiv_hardened)
  include(CheckCXXCompilerFlag)
  set(KIV_HARDENED_COMPILING)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "KIV_TAKES${flag}" takes)
    check_cxx_compiler_flag(${flag} ${takes})
    if(${takes})
      list(APPEND KIV_HARDENED_COMPILING ${flag})
    endif()
  endforeach()
  # A distribution may ask for more by its own flags. Some compilers define it by themselves.
  if(NOT kiv_flags MATCHES "_FORTIFY_SOURCE")
    list(APPEND KIV_HARDENED_COMPILING -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  set(KIV_HARDENED_LINKING -Wl,-z,relro -Wl,-z,now $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
endif()

# kiv_target(<target>): language, warnings (errors in our presets), hidden symbols, the hardening and the sanitizers of the
# build. On the target and not in CMAKE_ variables, so that a project around this one keeps its own.
function(kiv_target target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                           $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF C_STANDARD 11 C_STANDARD_REQUIRED ON
    C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON INSTALL_RPATH "${KIV_INSTALL_RPATH}")
  if(kiv_hardened)
    target_compile_options(${target} PRIVATE ${KIV_HARDENED_COMPILING})
    target_link_options(${target} PRIVATE ${KIV_HARDENED_LINKING})
  endif()
  if(KIV_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all
                                             # gcc takes the sanitizers' own paths for uninitialised reads.
                                             $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(${target} PUBLIC -fsanitize=${KIV_SANITIZE})
  endif()
endfunction()

# kiv_precompile(<target> <header>...): what many sources of a target include is compiled once, these headers and some of the
# language's. scripts/lint goes without, and sees that every source includes what it uses.
function(kiv_precompile target)
  target_precompile_headers(${target} PRIVATE ${ARGN} <algorithm> <chrono> <functional> <map> <memory> <mutex> <optional>
                            <string> <thread> <vector>)
endfunction()

# kiv_find_httplib(): PkgConfig::HTTPLIB, for targets of this directory and below.
macro(kiv_find_httplib)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
  if(APPLE)
    # Its header includes frameworks for certificates and names that we do not ask for. The driver seam has headers of the
    # same names, and must not be found in their place.
    target_compile_options(PkgConfig::HTTPLIB INTERFACE
      -UCPPHTTPLIB_USE_CERTS_FROM_MACOSX_KEYCHAIN -UCPPHTTPLIB_USE_NON_BLOCKING_GETADDRINFO
      -DCPPHTTPLIB_DISABLE_MACOSX_AUTOMATIC_ROOT_CERTIFICATES)
  endif()
endmacro()

# kiv_exports(<target> <list>): the library exports the names in the list, one a line, and no others.
function(kiv_exports target list)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
  file(STRINGS ${list} names REGEX "^[^#]")
  set(made ${CMAKE_CURRENT_BINARY_DIR}/${target}.exports)
  if(APPLE)
    list(TRANSFORM names PREPEND _)
    list(JOIN names "\n" text)
    set(option -Wl,-exported_symbols_list,${made})
  else()
    list(JOIN names ";\n" text)
    set(text "{ global:\n${text};\nlocal: *; };")
    set(option -Wl,--version-script=${made})
  endif()
  file(CONFIGURE OUTPUT ${made} CONTENT "${text}\n" @ONLY)
  target_link_options(${target} PRIVATE ${option})
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${made})
endfunction()
