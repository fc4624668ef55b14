# CLI11 and nlohmann::json (Debian: libcli11-dev, nlohmann-json3-dev) are
# header-only and serve every target alike. A cross build looks for
# packages under the target's root only, where Debian has neither, and
# must not put the build machine's /usr/include in front of the target's
# C library: there they come from a folder that holds just these two.
macro(dypd_find_header_only_libraries)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(CLI11 CONFIG REQUIRED)
    find_package(nlohmann_json 3 REQUIRED)
  elseif(NOT TARGET CLI11::CLI11)
    set(dypd_host_headers ${CMAKE_BINARY_DIR}/host-headers)
    file(MAKE_DIRECTORY ${dypd_host_headers})
    file(CREATE_LINK /usr/include/CLI ${dypd_host_headers}/CLI SYMBOLIC)
    file(CREATE_LINK /usr/include/nlohmann ${dypd_host_headers}/nlohmann SYMBOLIC)
    foreach(library CLI11::CLI11 nlohmann_json::nlohmann_json)
      add_library(${library} INTERFACE IMPORTED GLOBAL)
      set_target_properties(${library} PROPERTIES
                            INTERFACE_INCLUDE_DIRECTORIES ${dypd_host_headers})
    endforeach()
  endif()
endmacro()
