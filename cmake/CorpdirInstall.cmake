# The CMake package and the pkg-config files. Both find the rest relative to themselves, so that an
# installed tree may be moved.
include(CMakePackageConfigHelpers)

set(_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/corpdir)
set(_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/corpdirConfig.cmake.in
  ${PROJECT_BINARY_DIR}/corpdirConfig.cmake INSTALL_DESTINATION ${_cmake_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corpdirConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/corpdirConfig.cmake ${PROJECT_BINARY_DIR}/corpdirConfigVersion.cmake
  DESTINATION ${_cmake_dir} COMPONENT development)
foreach(_set corpdirTargets corpdirStaticTargets)
  install(EXPORT ${_set} NAMESPACE corpdir:: DESTINATION ${_cmake_dir} COMPONENT development)
endforeach()

# Some distributions configure absolute folders; the installed tree could not be moved then.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  message(FATAL_ERROR "CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be relative to the prefix")
endif()
file(RELATIVE_PATH CORPDIR_PC_PREFIX /prefix/${_pkgconfig_dir} /prefix)
string(REGEX REPLACE "/$" "" CORPDIR_PC_PREFIX ${CORPDIR_PC_PREFIX})
foreach(_name corpdir corpdir-static corpdir_c)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${_name}.pc.in ${PROJECT_BINARY_DIR}/${_name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_name}.pc DESTINATION ${_pkgconfig_dir} COMPONENT development)
endforeach()
