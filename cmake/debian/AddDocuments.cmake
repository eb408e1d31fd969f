# Run by cpack when the components are staged: adds to each package what Debian wants of it.

execute_process(
  COMMAND "${CPACK_ONDARO_SOURCE_DIR}/cmake/debian/changelog.sh"
          "${CPACK_ONDARO_SOURCE_DIR}/CHANGELOG.md" "${CPACK_DEBIAN_PACKAGE_SOURCE}"
          "${CPACK_DEBIAN_PACKAGE_MAINTAINER}"
  OUTPUT_VARIABLE changelog COMMAND_ERROR_IS_FATAL ANY)

set(public_file OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

function(compress file)
  execute_process(COMMAND gzip --best --no-name --force "${file}" COMMAND_ERROR_IS_FATAL ANY)
  file(CHMOD "${file}.gz" PERMISSIONS ${public_file})
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER "${component}" upper)
  set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  set(share "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share")
  set(data "${CPACK_ONDARO_SOURCE_DIR}/data/debian")

  file(COPY "${data}/copyright" DESTINATION "${share}/doc/${package}"
       FILE_PERMISSIONS ${public_file})
  file(WRITE "${share}/doc/${package}/changelog" "${changelog}")
  compress("${share}/doc/${package}/changelog")

  file(GLOB manuals "${share}/man/man*/*.[1-8]")
  foreach(manual ${manuals})
    compress("${manual}")
  endforeach()

  if(EXISTS "${data}/${package}.lintian-overrides")
    configure_file("${data}/${package}.lintian-overrides"
                   "${share}/lintian/overrides/${package}" COPYONLY
                   FILE_PERMISSIONS ${public_file})
  endif()
endforeach()
