# 32-bit ARM, hard float.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(DYPD_TRIPLE arm-linux-gnueabihf)
set(DYPD_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
