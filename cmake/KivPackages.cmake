# What cpack makes: Debian packages of the components, and an archive of the sources. docs/packaging.md has more.

set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${debian}/changelog)
file(STRINGS ${debian}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^kiv \\((.*)-([0-9]+)\\) " OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "${debian}/changelog has no entry for ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})

set(CPACK_PACKAGE_CONTACT "kiv maintainers <maintainers@kiv.example>")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL library development tools)
if(TARGET kivpython)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_COMPONENT_PYTHON_DEPENDS library)
set(CPACK_PRE_BUILD_SCRIPTS ${debian}/finish.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_SOURCE kiv)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkiv${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "host-side development kit of the media-network cards
Finds the PCI Express media-network cards of a machine, sets them up, watches
them and writes their firmware.

This package contains the shared library.")
# A later revision does for a program, another minor version does not: docs/versions.md. CPack's own control file cannot
# say the second.
math(EXPR next "${PROJECT_VERSION_MINOR} + 1")
set(KIV_SHLIBS_END ${PROJECT_VERSION_MAJOR}.${next})
configure_file(${debian}/shlibs.in ${PROJECT_BINARY_DIR}/debian/shlibs @ONLY)
# The trigger calls ldconfig. The two scripts, which do not exist, keep CPack from making such that call it, too.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/shlibs ${debian}/triggers
                                               ${debian}/postinst ${debian}/postrm)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkiv-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The exported classes carry the version of the JSON library in their names.
find_package(nlohmann_json REQUIRED)
math(EXPR next "${nlohmann_json_VERSION_PATCH} + 1")
set(next ${nlohmann_json_VERSION_MAJOR}.${nlohmann_json_VERSION_MINOR}.${next})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "nlohmann-json3-dev (>= ${nlohmann_json_VERSION}), nlohmann-json3-dev (<< ${next}~)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS libspdlog-dev)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "host-side development kit of the media-network cards (headers)
Finds the PCI Express media-network cards of a machine, sets them up, watches
them and writes their firmware.

This package contains the headers of the C interface and of the exported C++
classes, and the files for CMake and pkg-config.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kiv-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "tool and simulator of the media-network cards
kivctl shows the PCI Express media-network cards of a machine and what is
wrong with them, changes their settings and writes their firmware. kivsim
simulates such cards, for tests without hardware.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kiv)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# The compiled part is for one minor version of Python, the one that built it.
if(TARGET kivpython)
  get_target_property(python kivpython KIV_PYTHON_VERSION)
  string(REGEX REPLACE "([0-9]+)[.]([0-9]+).*" "\\1;\\2" python "${python}")
  list(GET python 0 major)
  list(GET python 1 minor)
  math(EXPR next "${minor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= ${major}.${minor}), python3 (<< ${major}.${next})")
endif()
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${debian}/python/postinst ${debian}/python/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Python package of the media-network cards
Finds the PCI Express media-network cards of a machine, sets them up, watches
them and writes their firmware, from Python programs.")

set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME kiv-${PROJECT_VERSION})
set(CPACK_SOURCE_IGNORE_FILES "^${PROJECT_SOURCE_DIR}/build/" "/[.]git(/|$)" "/__pycache__/" "/CMakeUserPresets[.]json$")
include(CPack)
