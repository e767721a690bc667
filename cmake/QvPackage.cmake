# The installed package: CMake config files (find_package(qvagent) gives qvagent::qvagent and
# qvagent::qvagent_static) and a pkg-config file.
include(CMakePackageConfigHelpers)
set(QV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvagent)

install(EXPORT qvagentTargets NAMESPACE qvagent:: DESTINATION ${QV_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qvagentConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qvagentConfig.cmake INSTALL_DESTINATION ${QV_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qvagentConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvagentConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/qvagentConfigVersion.cmake
        DESTINATION ${QV_CMAKE_DIR})

configure_file(${CMAKE_CURRENT_LIST_DIR}/qvagent.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qvagent.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvagent.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
