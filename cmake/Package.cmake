# What cmake --install puts where: the shared library with a versioned
# SONAME, its header under include/tamvik, a pkg-config file and a CMake
# package (find_package(Tamvik) gives Tamvik::tamvik), and the tool.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# libtamvik.so.0 -> libtamvik.so.0.1.0: the SONAME follows the major version.
set_target_properties(tamvik PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(tamvik PUBLIC $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tamvik>)

install(TARGETS tamvik EXPORT TamvikTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES api/RegAPI.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tamvik)

set(TAMVIK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tamvik)
install(EXPORT TamvikTargets NAMESPACE Tamvik:: DESTINATION ${TAMVIK_CMAKE_DIR})
configure_package_config_file(cmake/TamvikConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/TamvikConfig.cmake
                              INSTALL_DESTINATION ${TAMVIK_CMAKE_DIR})
# 0.x releases may change the interface: a consumer asks for the same major version.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TamvikConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TamvikConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/TamvikConfigVersion.cmake
        DESTINATION ${TAMVIK_CMAKE_DIR})

# An installed tree may be moved (cmake --install --prefix, packaging roots):
# the .pc finds its prefix relative to itself.
file(RELATIVE_PATH TAMVIK_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TAMVIK_PC_TO_PREFIX "${TAMVIK_PC_TO_PREFIX}")
configure_file(cmake/tamvik.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tamvik.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tamvik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# libtamvik-image, when built: libtamvik-image.so.0, TamvikImage.h beside
# RegAPI.h, tamvik-image.pc, and the CMake package's component "image"
# (find_package(Tamvik COMPONENTS image) gives Tamvik::image).
if(TAMVIK_IMAGE)
  target_include_directories(tamvik_image PUBLIC $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tamvik>)
  install(TARGETS tamvik_image EXPORT TamvikImageTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES image/TamvikImage.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tamvik)
  install(EXPORT TamvikImageTargets NAMESPACE Tamvik:: DESTINATION ${TAMVIK_CMAKE_DIR})
  configure_file(cmake/tamvik-image.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tamvik-image.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tamvik-image.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
