# Read by cpack before it packs: what can only be known then.

# The time of every file in a package is the last commit's.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND git log -1 --format=%ct WORKING_DIRECTORY "${CPACK_ONDARO_SOURCE_DIR}"
                  OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
endif()

execute_process(COMMAND "${CPACK_ONDARO_SOURCE_DIR}/cmake/debian/header-packages.sh"
                OUTPUT_VARIABLE CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

if(CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  set(ENV{DEB_HOST_ARCH} "${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}")
endif()
