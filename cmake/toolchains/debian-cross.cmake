# Shared by the toolchain files of this directory: Debian's cross compiler
# for DYPD_TRIPLE, its library directory as the only place to look for
# target libraries, and qemu-user to run target programs (ctest, test
# discovery). Set DYPD_TRIPLE and DYPD_QEMU before including this file.
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${DYPD_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DYPD_TRIPLE}-g++)

set(DYPD_TARGET_ROOT /usr/${DYPD_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${DYPD_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L: the target's dynamic loader and libraries live under its root.
set(CMAKE_CROSSCOMPILING_EMULATOR ${DYPD_QEMU} -L ${DYPD_TARGET_ROOT})
