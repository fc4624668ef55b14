# 32-bit MIPS, little-endian, with musl as the C library (as on OpenWrt).
#
# Debian has no C++ compiler for musl, but the daemon needs only the
# header-only parts of the C++ standard library. So both languages use
# Debian's mipsel-linux-gnu compiler with musl's specs file (what the
# mipsel-linux-musl-gcc wrapper does): musl's headers, start files, loader
# and libc. The specs file drops every default include directory, so the C++
# headers of the same compiler come back with -isystem, in front of musl's
# headers as their #include_next expects. The daemon links as C and so
# never reaches for libstdc++ itself. Those headers ask for glibc's version;
# musl-cxx-config.h answers for musl.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(DYPD_MUSL_SPECS /usr/lib/mipsel-linux-musl/musl-gcc.specs)
set(DYPD_GNU_CXX_HEADERS /usr/mipsel-linux-gnu/include/c++/12)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_C_FLAGS_INIT "-specs=${DYPD_MUSL_SPECS}")
set(CMAKE_CXX_FLAGS_INIT "-specs=${DYPD_MUSL_SPECS} -nostdinc++ -isystem ${DYPD_GNU_CXX_HEADERS} -isystem ${DYPD_GNU_CXX_HEADERS}/mipsel-linux-gnu -include ${CMAKE_CURRENT_LIST_DIR}/musl-cxx-config.h")

# libstdc++ is built for glibc: no C++ program links here, so the compiler
# checks stop at the object file.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_FIND_ROOT_PATH /usr/lib/mipsel-linux-musl)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# musl's loader is /lib/ld-musl-mipsel.so.1 on the build machine as on the box.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel)
