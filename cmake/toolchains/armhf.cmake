set(ONDARO_DEBIAN_ARCHITECTURE armhf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(triplet arm-linux-gnueabihf)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
