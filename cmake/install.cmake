# What `cmake --install` puts under the prefix, and the Debian package made of
# the same files:
#   bin/zeva
#   include/zeva/*.h                       the public headers, version.h included
#   <libdir>/libzeva.so.X.Y.Z, .so.X, .so  the library, its SONAME link, its development link
#   <libdir>/pkgconfig/zeva.pc
#   <libdir>/cmake/ZEVA/                   find_package(ZEVA): target ZEVA::zeva
# The internal archive zeva_core, the test and benchmark programs and the
# headers under src/ are never installed.
include(CMakePackageConfigHelpers)

set(ZEVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZEVA)
set(ZEVA_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS zeva EXPORT ZEVATargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zeva_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zeva
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${ZEVA_GENERATED_INCLUDE_DIR}/zeva/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zeva)

# CMake package. The targets file locates the prefix from its own place, so
# the installed tree can be moved (a staging root, an unpacked .deb).
install(EXPORT ZEVATargets NAMESPACE ZEVA:: DESTINATION ${ZEVA_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZEVAConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZEVAConfig.cmake
  INSTALL_DESTINATION ${ZEVA_CMAKE_DIR})
# The SONAME carries the major number: any 0.x library serves a host built
# against an earlier 0.x.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZEVAConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZEVAConfig.cmake ${PROJECT_BINARY_DIR}/ZEVAConfigVersion.cmake
  DESTINATION ${ZEVA_CMAKE_DIR})

# pkg-config file. Its prefix is found relative to the file itself
# (${pcfiledir}), for the same reason as the CMake package.
file(RELATIVE_PATH ZEVA_PC_TO_PREFIX /${ZEVA_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" ZEVA_PC_TO_PREFIX "${ZEVA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zeva.pc.in ${PROJECT_BINARY_DIR}/zeva.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zeva.pc DESTINATION ${ZEVA_PKGCONFIG_DIR})

# Debian package (scripts/package): one package holding all of the above.
# dpkg-shlibdeps fills Depends with the FFmpeg, libyuv and C++ runtime
# packages the library and program load; the FFmpeg development packages are
# added because zeva.pc names their pkg-config modules.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libzeva)
set(CPACK_PACKAGE_VENDOR "ZEVALib")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "media recording library: raw pictures and sound to MP4 files and live streams")
set(CPACK_PACKAGE_DESCRIPTION
  "libzeva.so, its headers, pkg-config file and CMake package, and the zeva program.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "ZEVALib developers <zeva@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "libavcodec-dev, libavformat-dev, libavutil-dev, libswscale-dev, libswresample-dev")
include(CPack)
