set(ONDARO_DEBIAN_ARCHITECTURE arm64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triplet aarch64-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
