# Language, warnings and sanitizers, the same for every target of the project.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
# gnu++17 for __VA_OPT__, by which a log statement without values stays one call.
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
# In the build tree libraries are found relative to the executable; installed files have no run
# path at all. Either way no path of the build gets into a binary.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# The oldest GLib that a set may have: what is newer does not compile.
add_compile_definitions(GLIB_VERSION_MIN_REQUIRED=GLIB_VERSION_2_56
                        GLIB_VERSION_MAX_ALLOWED=GLIB_VERSION_2_56)

# Where a word has 32 bits: lengths of files, inode numbers and times have 64 all the same. GCC's notes
# about the calls of its version 6 are of no use.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
  add_compile_options(-Wno-psabi)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-Wno-gnu-zero-variadic-macro-arguments)
endif()

# What is shipped: Debian's hardening, symbols bound at start (the table is read-only afterwards),
# and the same binary whatever directory it was built in.
add_compile_options(
  "$<$<CONFIG:Release>:-O2;-fstack-protector-strong;-Wformat;-Werror=format-security>"
  "$<$<CONFIG:Release>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>"
  "$<$<CONFIG:Release>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>")
add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
add_link_options("$<$<CONFIG:Release>:LINKER:-O1,--as-needed,-z,relro,-z,now>")

if(ONDARO_SANITIZE)
  add_compile_options(-fsanitize=${ONDARO_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ONDARO_SANITIZE})
  # Instrumented code hides from the compiler what initialises a variable.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
