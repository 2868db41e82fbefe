# Runs in cpack when the components are staged: makes of each what Debian's policy asks for.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

# Of the component that was staged last; file(INSTALL) would heed it.
unset(ENV{DESTDIR})
find_program(GZIP gzip REQUIRED)
function(compress)
  if(ARGN)
    execute_process(COMMAND ${GZIP} -9n ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(share ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
  file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/changelog DESTINATION ${share}/doc/${package} RENAME changelog.Debian)
  file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${share}/doc/${package})
  file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides DESTINATION ${share}/lintian/overrides RENAME ${package})
  file(GLOB pages ${share}/man/man[1-9]/*[1-9])
  compress(${share}/doc/${package}/changelog.Debian ${pages})
  # Debian's zsh does not look into site-functions.
  if(EXISTS ${share}/zsh/site-functions)
    file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)
  endif()
endforeach()
