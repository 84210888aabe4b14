# Installation: the two shared libraries, the public headers, a CMake package
# (find_package(qzinterp3d_halide) -> qzinterp3d_halide::qzinterp3d_halide)
# and a pkg-config file (qzinterp3d_halide.pc). Included by the top-level
# CMakeLists.txt once the library targets exist.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QZINTERP3D_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/qzinterp3d_halide"
    CACHE STRING "Where the CMake package files are installed, relative to the prefix")

# The C++ interface (qzinterp3d/interp3.hpp) builds on HalideBuffer.h, which
# needs C++17. The installed library finds its runtime next to itself.
target_compile_features(qzinterp3d_halide INTERFACE cxx_std_17)
set_target_properties(qzinterp3d_halide PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS qzinterp3d_halide qzhalideRuntime
  EXPORT qzinterp3d_halideTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/qzinterp3d_halide.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qzinterp3d
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.hpp")

install(EXPORT qzinterp3d_halideTargets
  NAMESPACE qzinterp3d_halide::
  DESTINATION ${QZINTERP3D_INSTALL_CMAKEDIR}
  COMPONENT Development)

# Halide's runtime headers (HalideRuntime.h, HalideBuffer.h) are not ours to
# install: the package records where this build found them, and looks there
# (and under the consumer's own prefixes) when it is loaded.
set(QZINTERP3D_HALIDE_INCLUDE_DIR "${QZ_HALIDE_INCLUDE_DIR}")
set(QZINTERP3D_HALIDE_VERSION_MAJOR "${Halide_VERSION_MAJOR}")
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/qzinterp3d_halideConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/qzinterp3d_halideConfig.cmake
  INSTALL_DESTINATION ${QZINTERP3D_INSTALL_CMAKEDIR}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/package/qzinterp3d_halideConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/package/qzinterp3d_halideConfig.cmake
  ${PROJECT_BINARY_DIR}/package/qzinterp3d_halideConfigVersion.cmake
  DESTINATION ${QZINTERP3D_INSTALL_CMAKEDIR}
  COMPONENT Development)

# pkg-config: paths relative to the .pc file, so that the tree can be
# installed under any prefix (cmake --install --prefix) or moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  message(FATAL_ERROR "qzinterp3d_halide.pc needs a relative CMAKE_INSTALL_LIBDIR, got ${CMAKE_INSTALL_LIBDIR}")
endif()
file(RELATIVE_PATH QZINTERP3D_PC_TO_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
string(REGEX REPLACE "/$" "" QZINTERP3D_PC_TO_PREFIX "${QZINTERP3D_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/qzinterp3d_halide.pc.in
  ${PROJECT_BINARY_DIR}/package/qzinterp3d_halide.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/qzinterp3d_halide.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)
