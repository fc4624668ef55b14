# 32-bit MIPS, big-endian: shows any wire or driver encoding that leans on the host's byte order.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(DYPD_TRIPLE mips-linux-gnu)
set(DYPD_QEMU qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
