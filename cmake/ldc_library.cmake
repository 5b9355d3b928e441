# The library: one set of objects, built into the shared library the camera service loads and a
# static archive that the tests, benchmarks and tools link (they reach internal stages too).
file(GLOB_RECURSE LDC_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)

find_package(Threads REQUIRED)
include(GNUInstallDirs)

add_library(vkt_zb_ldc_obj OBJECT ${LDC_SOURCES})
target_include_directories(vkt_zb_ldc_obj PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
set_target_properties(vkt_zb_ldc_obj PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)

if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*|aarch64|arm64)$")
  # Off ARM the NEON intrinsics are provided by SIMDe (Debian libsimde-dev).
  find_path(SIMDE_INCLUDE_DIR simde/arm/neon.h REQUIRED)
  target_include_directories(vkt_zb_ldc_obj SYSTEM PUBLIC ${SIMDE_INCLUDE_DIR})
  target_compile_definitions(vkt_zb_ldc_obj PUBLIC LDC_NEON_THROUGH_SIMDE=1)
endif()

set(LDC_SYSTEM_LIBS Threads::Threads m)
if(ANDROID)
  list(APPEND LDC_SYSTEM_LIBS log)
endif()
target_link_libraries(vkt_zb_ldc_obj PUBLIC ${LDC_SYSTEM_LIBS})

# Export list: each subsystem names its exported symbols in src/<subsystem>/exports.txt
# (one C name, mangled C++ name or glob pattern per line; '#' starts a comment).
file(GLOB LDC_EXPORT_LISTS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*/exports.txt)
list(SORT LDC_EXPORT_LISTS)
set(LDC_EXPORTS "")
foreach(f ${LDC_EXPORT_LISTS})
  file(STRINGS ${f} lines)
  foreach(l ${lines})
    string(REGEX REPLACE "#.*$" "" l "${l}")
    string(STRIP "${l}" l)
    if(NOT l STREQUAL "")
      list(APPEND LDC_EXPORTS "${l}")
    endif()
  endforeach()
endforeach()
set(LDC_EXPORT_FILE ${PROJECT_BINARY_DIR}/vkt_zb_ldc.exports)
set(LDC_VERSION_SCRIPT ${PROJECT_BINARY_DIR}/vkt_zb_ldc.map)
string(REPLACE ";" "\n" _exports_text "${LDC_EXPORTS}")
file(WRITE ${LDC_EXPORT_FILE}.tmp "${_exports_text}\n")
configure_file(${LDC_EXPORT_FILE}.tmp ${LDC_EXPORT_FILE} COPYONLY)
set(_map "{\n  global:\n")
foreach(s ${LDC_EXPORTS})
  string(APPEND _map "    ${s};\n")
endforeach()
string(APPEND _map "  local:\n    *;\n};\n")
file(WRITE ${LDC_VERSION_SCRIPT}.tmp "${_map}")
configure_file(${LDC_VERSION_SCRIPT}.tmp ${LDC_VERSION_SCRIPT} COPYONLY)

add_library(vkt_zb_ldc SHARED $<TARGET_OBJECTS:vkt_zb_ldc_obj>)
target_include_directories(vkt_zb_ldc PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(vkt_zb_ldc PRIVATE ${LDC_SYSTEM_LIBS})
target_link_options(vkt_zb_ldc PRIVATE -Wl,--version-script=${LDC_VERSION_SCRIPT} -Wl,--no-undefined)
set_target_properties(vkt_zb_ldc PROPERTIES LINK_DEPENDS ${LDC_VERSION_SCRIPT})

add_library(vkt_zb_ldc_static STATIC)
target_link_libraries(vkt_zb_ldc_static PUBLIC vkt_zb_ldc_obj)

include(cmake/ldc_package.cmake)
