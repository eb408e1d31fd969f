# Debian packages, one for each component of OndaroInstall.cmake: `cpack --preset release`.
# Dependencies are computed: of binaries by dpkg-shlibdeps, among the packages from the components,
# of the headers from what they include (cmake/debian/PackageConfig.cmake).

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lib-ondaro-platform-tv)
# Each package has a summary of its own, the first line of its component's description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_VENDOR "The Ondaro platform authors")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/cmake/debian/PackageConfig.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/debian/AddDocuments.cmake")
set(CPACK_ONDARO_SOURCE_DIR "${PROJECT_SOURCE_DIR}")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SOURCE lib-ondaro-platform-tv)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The Ondaro platform authors <authors@ondaro.example>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${ONDARO_DEBIAN_ARCHITECTURE}")
  foreach(directory lib usr/lib)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
         "${CMAKE_SYSROOT}/${directory}/${CMAKE_LIBRARY_ARCHITECTURE}")
  endforeach()
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME lib-ondaro-platform-tv1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The linker's cache is renewed by a trigger; postrm is named, but does not exist, to keep cpack from
# making its own, which would call ldconfig as well.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/data/debian/triggers" "${PROJECT_SOURCE_DIR}/data/debian/postinst"
    "${PROJECT_SOURCE_DIR}/data/debian/postrm")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS
    "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME lib-ondaro-platform-tv-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ondaro-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_KIT_PACKAGE_NAME ondaro-platform-check)
set(CPACK_DEBIAN_KIT_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_DOC_PACKAGE_NAME lib-ondaro-platform-tv-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

set(CPACK_COMPONENTS_ALL runtime dev)
set(component_programs tools=ondaro-ctl kit=ondaro-platform-check doc=reference)
foreach(pair ${component_programs})
  string(REPLACE "=" ";" pair "${pair}")
  list(GET pair 0 component)
  list(GET pair 1 program)
  if(TARGET ${program})
    list(APPEND CPACK_COMPONENTS_ALL ${component})
  endif()
endforeach()

include(CPack)

cpack_add_component(
  runtime
  DESCRIPTION
    "platform adaptation of a media-sharing receiver on a television set
One shared library that the receiver's daemon and application load: named
text properties of the set with change events, messages between the two over
the D-Bus system bus, device authentication through the content decryption
module, and a trace of every call in the platform log.
.
With the backend for an ordinary Linux machine, the interface description
that the daemon registers, the access policy for the system bus, and the
user and group ondaro that it names.")
cpack_add_component(
  dev
  DEPENDS runtime
  DESCRIPTION
    "platform adaptation of a media-sharing receiver - development files
The C interface of lib-ondaro-platform-tv, its exported classes, the headers
of the platform layer that a port implements, and a daemon and an application
as examples.
.
Found with pkg-config (ondaro-platform-tv) and CMake (OndaroPlatformTv).")
cpack_add_component(
  tools
  DEPENDS runtime
  DESCRIPTION
    "operate a media-sharing receiver's platform from the command line
ondaro-ctl reads, writes and watches the properties of the set, sends and
shows the messages of daemon and application, and tries out device
authentication, all through the interface that lib-ondaro-platform-tv exports.")
cpack_add_component(
  kit
  DEPENDS runtime
  DESCRIPTION
    "check that a port of a receiver's platform layer conforms
ondaro-platform-check runs against the platform layer of a set, clause by
clause of its contract, and ends with a verdict, as text and JSON. It works
under settings keys of its own, so it is safe on a live set.")
cpack_add_component(
  doc
  DESCRIPTION
    "platform adaptation of a media-sharing receiver - documentation
Pages on writing a daemon or an application, on the command-line tool, on
bringing the library to another set and on shipping it, and the reference of
all its headers.")
