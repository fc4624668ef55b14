# 32-bit MIPS, little-endian: the box.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(DYPD_TRIPLE mipsel-linux-gnu)
set(DYPD_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
