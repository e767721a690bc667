# Debian packages, one per install component (cpack -G DEB in the build tree):
#   libqvagent1     runtime  libqvagent.so.1 and libqvplatform.so.1
#   libqvagent-dev  dev      headers, link names, the static archive, pkg-config and CMake package files
#   qvagent-tools   tools    qvcollector, qvdump and the Wireshark dissector
# Library dependencies come from dpkg-shlibdeps; the -dev package needs the runtime of the same version.
set(CPACK_PACKAGE_NAME qvagent)
set(CPACK_PACKAGE_VENDOR "libqvagent")
set(CPACK_PACKAGE_CONTACT "libqvagent maintainers <qvagent@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "reporting agent for the service processes of a network device")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev)
if(QV_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqvagent1)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "reporting agent for the service processes of a network device\n\
The shared library that services link to report alarms, logs and KPI samples to the collector\n\
over numbered UDP datagrams, with the platform stand-in it runs on.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqvagent-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "reporting agent: development files\n\
Headers, the static library, the pkg-config file and the CMake package (find_package(qvagent)).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qvagent-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS tshark)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "reporting agent: collector, file dumper and Wireshark dissector\n\
qvcollector receives, acknowledges and decodes the agent's datagrams; qvdump prints the agent's\n\
blackbox and local log files; share/qvagent/qvagent.lua decodes the traffic in Wireshark and tshark.")

include(CPack)
