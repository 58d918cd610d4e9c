# Every library the tree stands on, found once. scripts/deps.sh lists the Debian packages.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
if(POLICY CMP0167)
  cmake_policy(SET CMP0167 NEW)  # Boost's own configuration; later releases of CMake have no other.
endif()
find_package(Boost 1.81 REQUIRED)
find_package(pugixml REQUIRED)
find_package(CLI11 REQUIRED)
find_package(spdlog REQUIRED)
pkg_check_modules(YAML REQUIRED IMPORTED_TARGET yaml-0.1)
# The distribution's own interpreter: its modules come from the distribution's packages too.
find_program(KELV_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
if(KELV_LIBVIRT)
  pkg_check_modules(LIBVIRT IMPORTED_TARGET libvirt)
endif()
pkg_check_modules(SYSTEMD IMPORTED_TARGET libsystemd)

find_path(NET_SNMP_INCLUDE net-snmp/net-snmp-config.h REQUIRED)
find_library(NET_SNMP_LIBRARY netsnmp REQUIRED)
find_library(NET_SNMP_AGENT_LIBRARY netsnmpagent REQUIRED)
# For managers, and with the agent's library for what is loaded into it.
add_library(net-snmp-manager INTERFACE)
target_include_directories(net-snmp-manager SYSTEM INTERFACE ${NET_SNMP_INCLUDE})
target_link_libraries(net-snmp-manager INTERFACE ${NET_SNMP_LIBRARY})
add_library(net-snmp INTERFACE)
target_link_libraries(net-snmp INTERFACE ${NET_SNMP_AGENT_LIBRARY} net-snmp-manager)

# Debian's Boost headers cause warnings that we cannot fix.
add_library(boost-headers INTERFACE)
target_include_directories(boost-headers SYSTEM INTERFACE ${Boost_INCLUDE_DIRS})
