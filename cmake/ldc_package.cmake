# What `cmake --install` lays out for other builds: the shared library, its header, a CMake
# package (find_package(vkt_zb_ldc CONFIG) gives the imported target vkt_zb_ldc::vkt_zb_ldc) and
# a pkg-config file. The .so keeps its plain name without a version suffix: the camera service
# loads it as libvkt_zb_ldc.so.
include(CMakePackageConfigHelpers)

set(LDC_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vkt_zb_ldc)

install(TARGETS vkt_zb_ldc EXPORT vkt_zb_ldc_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/vkt_zb_ldc.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vkt_zb_ldc_targets NAMESPACE vkt_zb_ldc:: DESTINATION ${LDC_CMAKE_DIR}
  FILE vkt_zb_ldcTargets.cmake)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vkt_zb_ldcConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vkt_zb_ldcConfig.cmake INSTALL_DESTINATION ${LDC_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vkt_zb_ldcConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vkt_zb_ldcConfig.cmake ${PROJECT_BINARY_DIR}/vkt_zb_ldcConfigVersion.cmake
  DESTINATION ${LDC_CMAKE_DIR})

# The library links pthreads and libm itself; a static consumer would not need them, but the .so
# is what is installed, so they appear only as private libraries (and liblog on Android).
set(LDC_PC_LIBS_PRIVATE "-lpthread -lm")
if(ANDROID)
  string(APPEND LDC_PC_LIBS_PRIVATE " -llog")
endif()
# Relative to the .pc file, so that `cmake --install --prefix DIR` gives a usable file anywhere.
file(RELATIVE_PATH LDC_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/vkt_zb_ldc.pc.in ${PROJECT_BINARY_DIR}/vkt_zb_ldc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vkt_zb_ldc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
