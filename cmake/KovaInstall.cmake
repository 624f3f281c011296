# What other projects need to find an installed libkova: a CMake package and a pkg-config file, both relocatable.
# Targets and headers are installed where they are defined, in the export set `kova-targets`.
set(kova_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kova)

install(EXPORT kova-targets NAMESPACE kova:: DESTINATION ${kova_package_dir} COMPONENT development)
configure_package_config_file(cmake/kova-config.cmake.in ${PROJECT_BINARY_DIR}/kova-config.cmake
  INSTALL_DESTINATION ${kova_package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kova-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kova-config.cmake ${PROJECT_BINARY_DIR}/kova-config-version.cmake
  DESTINATION ${kova_package_dir} COMPONENT development)

set(kova_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# The way from the .pc file back to the prefix, so that a moved installation is found where it is.
file(RELATIVE_PATH kova_pc_to_prefix /prefix/${kova_pc_dir} /prefix)
string(REGEX REPLACE "/$" "" kova_pc_to_prefix ${kova_pc_to_prefix})
configure_file(cmake/kova.pc.in ${PROJECT_BINARY_DIR}/kova.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kova.pc DESTINATION ${kova_pc_dir} COMPONENT development)

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
