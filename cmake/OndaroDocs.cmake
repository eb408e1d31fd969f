# Targets of the pages, when the packages of the group `docs` are there:
#   reference  the reference of all headers, from their comments, in reference/html of the build tree
#   pictures   the pictures of docs/ from their sources, to be committed

find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(DOXYGEN_PROJECT_NAME lib-ondaro-platform-tv)
  set(DOXYGEN_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/reference")
  set(DOXYGEN_USE_MDFILE_AS_MAINPAGE "${PROJECT_SOURCE_DIR}/data/reference.md")
  set(DOXYGEN_HTML_HEADER "${PROJECT_SOURCE_DIR}/data/reference-header.html")
  set(DOXYGEN_STRIP_FROM_PATH "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/platform/include"
                              "${PROJECT_SOURCE_DIR}")
  set(DOXYGEN_STRIP_FROM_INC_PATH ${DOXYGEN_STRIP_FROM_PATH})
  set(DOXYGEN_QUIET YES)
  set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
  set(DOXYGEN_WARN_NO_PARAMDOC YES)
  set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
  set(DOXYGEN_DISTRIBUTE_GROUP_DOC YES)
  set(DOXYGEN_MACRO_EXPANSION YES)
  set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
  set(DOXYGEN_PREDEFINED ONDARO_EXPORT= __cplusplus __GNUC__)
  set(DOXYGEN_DISABLE_INDEX YES)
  set(DOXYGEN_SEARCHENGINE NO)
  set(DOXYGEN_HAVE_DOT NO)
  set(DOXYGEN_CLASS_GRAPH NO)
  set(DOXYGEN_VERBATIM_HEADERS NO)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/*.h"
       "${PROJECT_SOURCE_DIR}/platform/include/*.h")
  doxygen_add_docs(reference ${headers} "${PROJECT_SOURCE_DIR}/data/reference.md" USE_STAMP_FILE)
endif()

find_program(MSCGEN mscgen)
if(MSCGEN)
  # With a ground of its own, for viewers whose page is dark.
  set(ground [[s|text-rendering="geometricPrecision">|&<rect width="100%" height="100%" fill="white"/>|]])
  set(picture "${PROJECT_SOURCE_DIR}/docs/sequence")
  add_custom_target(
    pictures
    COMMAND "${MSCGEN}" -T svg -i "${picture}.msc" -o "${picture}.svg"
    COMMAND sed -i "${ground}" "${picture}.svg"
    VERBATIM)
endif()
