# Installs the library, its header, a CMake package (find_package(kivbf)
# gives kivbf::kivbf) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(KIVBF_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kivbf)

install(TARGETS kivbf EXPORT kivbfTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/AudioBfProcess.h ${PROJECT_SOURCE_DIR}/include/kivbf_ext.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kivbfTargets NAMESPACE kivbf:: DESTINATION ${KIVBF_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kivbfConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kivbfConfig.cmake INSTALL_DESTINATION ${KIVBF_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kivbfConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kivbfConfig.cmake ${PROJECT_BINARY_DIR}/kivbfConfigVersion.cmake
  DESTINATION ${KIVBF_CMAKE_DIR})

# The .pc file finds the prefix from its own location, so --prefix given at
# install time is honoured.
file(RELATIVE_PATH KIVBF_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KIVBF_PC_TO_PREFIX "${KIVBF_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kivbf.pc.in ${PROJECT_BINARY_DIR}/kivbf.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kivbf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
