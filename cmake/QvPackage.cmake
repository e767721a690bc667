# The installed package: CMake config files (find_package(qvagent) gives qvagent::qvagent and
# qvagent::qvagent_static) and a pkg-config file.
include(CMakePackageConfigHelpers)
set(QV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvagent)

install(EXPORT qvagentTargets NAMESPACE qvagent:: DESTINATION ${QV_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qvagentConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qvagentConfig.cmake INSTALL_DESTINATION ${QV_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qvagentConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvagentConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/qvagentConfigVersion.cmake
        DESTINATION ${QV_CMAKE_DIR} COMPONENT dev)

# The pkg-config file finds its prefix from where it lies (${pcfiledir}), so an installed tree works
# wherever it is installed or moved to. An absolute libdir or includedir is written as it is.
file(RELATIVE_PATH QV_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" QV_PC_UP "${QV_PC_UP}")
set(QV_PC_PREFIX "\${pcfiledir}/${QV_PC_UP}")
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(QV_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(QV_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/qvagent.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qvagent.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvagent.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
