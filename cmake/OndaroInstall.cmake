# What `cmake --install` puts where, in these components:
#   runtime  library, backend, interface description, bus policy, its users and their directory
#   dev      headers, link names, pkg-config file, CMake package, example sources
#   tools    ondaro-ctl with manual page and completion
#   kit      ondaro-platform-check
#   doc      the pages and the reference, when it is built
# A relative CMAKE_INSTALL_BINDIR, ...LIBDIR and so on below the prefix keep the result relocatable.

include(CMakePackageConfigHelpers)

set(ONDARO_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/OndaroPlatformTv")
set(ONDARO_PKGCONFIG_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
set(ONDARO_EXAMPLES_DIR "${CMAKE_INSTALL_DATADIR}/doc/lib-ondaro-platform-tv-dev/examples")

# All that is built to be installed, and nothing else.
add_custom_target(ondaro-shipped DEPENDS ondaro-platform-tv ondaro-platform)

# Runtime, and the link names for dev. A port may bring its backend as an imported library, which
# is then its own business.
set(libraries ondaro-platform-tv ondaro-platform-contract)
get_target_property(backend_is_imported ondaro-platform IMPORTED)
if(NOT backend_is_imported)
  list(APPEND libraries ondaro-platform)
endif()
install(
  TARGETS ${libraries}
  EXPORT OndaroPlatformTvTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev)
install(FILES "${PROJECT_SOURCE_DIR}/data/com.halvex.tv.ondaro.interface.xml"
        DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
install(FILES "${PROJECT_SOURCE_DIR}/data/com.halvex.tv.ondaro.conf"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/system.d" COMPONENT runtime)
# The users that the policy names, and the state that they share.
foreach(kind sysusers tmpfiles)
  install(FILES "${PROJECT_SOURCE_DIR}/data/ondaro.${kind}" DESTINATION "lib/${kind}.d"
          RENAME ondaro.conf COMPONENT runtime)
endforeach()

# Development.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/ondaro"
                  "${PROJECT_SOURCE_DIR}/platform/include/platform"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT dev FILES_MATCHING PATTERN "*.h")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples/"
        DESTINATION "${ONDARO_EXAMPLES_DIR}" COMPONENT dev FILES_MATCHING PATTERN "*.c" PATTERN "*.service")
install(EXPORT OndaroPlatformTvTargets NAMESPACE OndaroPlatformTv::
        DESTINATION "${ONDARO_CMAKE_DIR}" COMPONENT dev)
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/data/OndaroPlatformTvConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/OndaroPlatformTvConfig.cmake"
  INSTALL_DESTINATION "${ONDARO_CMAKE_DIR}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/OndaroPlatformTvConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/OndaroPlatformTvConfig.cmake"
              "${PROJECT_BINARY_DIR}/OndaroPlatformTvConfigVersion.cmake"
        DESTINATION "${ONDARO_CMAKE_DIR}" COMPONENT dev)

file(RELATIVE_PATH pkgconfig_to_prefix "/${ONDARO_PKGCONFIG_DIR}" "/")
string(REGEX REPLACE "/$" "" pkgconfig_to_prefix "${pkgconfig_to_prefix}")
configure_file("${PROJECT_SOURCE_DIR}/data/ondaro-platform-tv.pc.in"
               "${PROJECT_BINARY_DIR}/ondaro-platform-tv.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/ondaro-platform-tv.pc"
        DESTINATION "${ONDARO_PKGCONFIG_DIR}" COMPONENT dev)

# The executables, those that this build has, each with its manual page <name>.1, or
# <name>.1.scd for scdoc, and its completion <name>.bash beside its sources.
function(ondaro_install_program name component sources)
  if(NOT TARGET ${name})
    return()
  endif()
  add_dependencies(ondaro-shipped ${name})
  install(TARGETS ${name} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT ${component})
  set(sources "${PROJECT_SOURCE_DIR}/${sources}")
  set(manual "")
  if(EXISTS "${sources}/${name}.1.scd")
    # Where man looks beside bin/; without the day of the build, which would be in every package.
    set(manual "${PROJECT_BINARY_DIR}/share/man/man1/${name}.1")
    add_custom_command(
      OUTPUT "${manual}"
      COMMAND sh -c [["$0" <"$1" >"$3" && sed '/^\.TH/s/"[-0-9]*"$/""/' "$3" >"$2"]]
              "${SCDOC}" "${sources}/${name}.1.scd" "${manual}" "${PROJECT_BINARY_DIR}/${name}.dated"
      DEPENDS "${sources}/${name}.1.scd"
      VERBATIM)
    add_custom_target(${name}-manual ALL DEPENDS "${manual}")
    add_dependencies(ondaro-shipped ${name}-manual)
  elseif(EXISTS "${sources}/${name}.1")
    set(manual "${sources}/${name}.1")
  endif()
  if(manual)
    install(FILES "${manual}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT ${component})
  endif()
  if(EXISTS "${sources}/${name}.bash")
    install(FILES "${sources}/${name}.bash"
            DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME ${name}
            COMPONENT ${component})
  endif()
endfunction()
ondaro_install_program(ondaro-ctl tools tools/ondaro-ctl)
ondaro_install_program(ondaro-platform-check kit platform/conformance)
if(TARGET ondaro-platform-check)
  install(FILES "${PROJECT_SOURCE_DIR}/docs/porting.md"
          DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/ondaro-platform-check" COMPONENT kit)
  if(EXISTS "${ONDARO_PLATFORM}/conformance.conf")
    install(FILES "${ONDARO_PLATFORM}/conformance.conf"
            DESTINATION "${CMAKE_INSTALL_DATADIR}/ondaro-platform-check" COMPONENT kit)
  endif()
endif()

# The pages, without links that lead out of their folder, since the sources are not there.
if(TARGET reference)
  add_dependencies(ondaro-shipped reference)
  set(doc_dir "${CMAKE_INSTALL_DATADIR}/doc/lib-ondaro-platform-tv-doc")
  file(GLOB pages CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${pages})
  foreach(page ${pages})
    file(READ "${page}" text)
    string(REGEX REPLACE "\\[([^]]*)\\]\\(\\.\\./[^)]*\\)" "\\1" text "${text}")
    get_filename_component(page "${page}" NAME)
    file(WRITE "${PROJECT_BINARY_DIR}/pages/${page}" "${text}")
    install(FILES "${PROJECT_BINARY_DIR}/pages/${page}" DESTINATION "${doc_dir}" COMPONENT doc)
  endforeach()
  install(FILES "${PROJECT_SOURCE_DIR}/docs/sequence.svg" DESTINATION "${doc_dir}" COMPONENT doc)
  # Without the scripts that the generator adds: no page asks for them.
  install(DIRECTORY "${PROJECT_BINARY_DIR}/reference/html" DESTINATION "${doc_dir}" COMPONENT doc
          OPTIONAL PATTERN "*.js" EXCLUDE)
endif()
