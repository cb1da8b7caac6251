# What a host build gets from `cmake --install`: the shared library, the two public headers in
# include/kyrlib/ (consumers include "kyrlib.h" the same way in-tree and installed), the trace
# catalogue, a pkg-config file and a CMake package exporting kyrlib::kyrlib.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KYR_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kyrlib)
set(KYR_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/kyrlib)
set(KYR_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kyrlib)

install(TARGETS kyrlib EXPORT kyrlibTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${KYR_INSTALL_INCLUDEDIR})
install(FILES api/kyrlib.h api/tr.h DESTINATION ${KYR_INSTALL_INCLUDEDIR})
install(FILES ${KYR_TRACE_CATALOGUE} DESTINATION ${KYR_INSTALL_DATADIR})

# The .pc file finds the prefix relative to its own directory, so the install prefix may still
# change at install time.
file(RELATIVE_PATH KYR_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KYR_PC_TO_PREFIX "${KYR_PC_TO_PREFIX}")
configure_file(cmake/kyrlib.pc.in kyrlib.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kyrlib.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(EXPORT kyrlibTargets NAMESPACE kyrlib:: DESTINATION ${KYR_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/kyrlibConfig.cmake.in kyrlibConfig.cmake
  INSTALL_DESTINATION ${KYR_INSTALL_CMAKEDIR}
  PATH_VARS KYR_INSTALL_DATADIR)
write_basic_package_version_file(kyrlibConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/kyrlibConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kyrlibConfigVersion.cmake
  DESTINATION ${KYR_INSTALL_CMAKEDIR})
