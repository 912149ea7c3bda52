# 32-bit ARM with hard float, the library's target.
set(QD_DEBIAN_ARCHITECTURE armhf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/CrossDebian.cmake)
