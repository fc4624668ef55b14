# Hardening and size flags for the daemon, the same on every target.
# scripts/check-hardening.sh verifies the result in the built binary.
#
# The daemon has no exceptions, so it needs no unwind tables; unused
# functions and data are dropped by section, and nothing is exported, so
# calls stay direct and the dynamic symbol table small. The stack
# protector stays whatever it costs.
set(DYPD_HARDEN_COMPILE_OPTIONS
    -fstack-protector-strong
    -ffunction-sections -fdata-sections
    -fno-asynchronous-unwind-tables -fno-unwind-tables
    -fvisibility=hidden -fvisibility-inlines-hidden
    # Only an optimised build can check buffer sizes.
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
# GNU hash stays off: on MIPS it is the MIPS-only .MIPS.xhash, which
# musl's loader does not read, and the classic table is smaller. -Wl,-O1
# is left out too: it buys lookup speed with a larger hash table.
set(DYPD_HARDEN_LINK_OPTIONS
    -pie
    -Wl,-z,relro -Wl,-z,now
    -Wl,-z,noexecstack
    -Wl,--gc-sections
    -Wl,--as-needed)

# MIPS linkers align segments for 64 KiB pages, which pads the file by up
# to 64 KiB; the box's kernel uses 4 KiB pages. A kernel with larger pages
# needs -DDYPD_MAX_PAGE_SIZE=65536 (empty: the linker's default).
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
  set(DYPD_MAX_PAGE_SIZE 4096 CACHE STRING "Largest page size the daemon's segments are aligned for")
else()
  set(DYPD_MAX_PAGE_SIZE "" CACHE STRING "Largest page size the daemon's segments are aligned for")
endif()
if(DYPD_MAX_PAGE_SIZE)
  list(APPEND DYPD_HARDEN_LINK_OPTIONS -Wl,-z,max-page-size=${DYPD_MAX_PAGE_SIZE})
endif()

# Link-time optimisation of the daemon: a tenth smaller on MIPS. The objects
# carry machine code as well, so the tests link them as usual.
option(DYPD_LTO "Link the daemon with link-time optimisation" ON)
option(DYPD_MIPS16 "Build the daemon as MIPS16e code (-mips16 -minterlink-mips16)" OFF)

# Applies the flags to `target`, a part of the daemon.
function(dypd_harden target)
  target_compile_options(${target} PRIVATE ${DYPD_HARDEN_COMPILE_OPTIONS})
  if(DYPD_MIPS16)
    target_compile_options(${target} PRIVATE -mips16 -minterlink-mips16)
  endif()
  # GCC's fat objects let the tests link the same objects without LTO;
  # other compilers (clang, for the fuzz build) build the daemon without it.
  set(lto OFF)
  if(DYPD_LTO AND NOT DYPD_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(lto ON)
    target_compile_options(${target} PRIVATE -flto=auto -ffat-lto-objects)
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    target_link_options(${target} PRIVATE ${DYPD_HARDEN_LINK_OPTIONS})
    if(lto)
      # Code is generated at the link, where the target's defaults (unwind
      # tables on x86-64) would come back.
      target_link_options(${target} PRIVATE -flto=auto -fno-asynchronous-unwind-tables
                          -fno-unwind-tables)
    endif()
  endif()
endfunction()
