# Debian packages, one per install component: `cpack -G DEB` in the build directory.
#   libmurntavi1     runtime: libmurntavi.so.1 and libkovproto.so.1
#   libmurntavi-dev  devel: headers (the generated message headers too), link names, the CMake
#                    package and murntavi.pc
#   murntavi-tools   tools: tavi-sim with libmurntavi-sim, tavictl, the sample real-time
#                    support library and the sample unit
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME murntavi)
set(CPACK_PACKAGE_VERSION ${MURNTAVI_LIB_VERSION})
set(CPACK_PACKAGE_CONTACT "murntavi maintainers <maintainers@murntavi.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime devel)
if(MURNTAVI_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# The architecture of the target, not of the build machine, so that a cross-built tree
# yields packages for the unit.
find_program(MURNTAVI_DPKG_ARCHITECTURE dpkg-architecture)
if(MURNTAVI_DPKG_ARCHITECTURE AND CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(COMMAND ${MURNTAVI_DPKG_ARCHITECTURE} -qDEB_HOST_ARCH
        -t ${CMAKE_LIBRARY_ARCHITECTURE}
        OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
        OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()

# System libraries become dependencies through dpkg-shlibdeps. Our own libraries belong to
# no installed package; it finds them in the build tree and leaves them to the explicit
# dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
foreach(_lib murntavi kovproto murntavi-sim)
    if(TARGET ${_lib})
        get_target_property(_dir ${_lib} BINARY_DIR)
        list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${_dir})
    endif()
endforeach()
set(_same_runtime "libmurntavi1 (= ${CPACK_PACKAGE_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libmurntavi1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "C++ SDK for the platform services of a vehicle telematics unit
The shared libraries applications link against: libmurntavi reaches the unit's
platform services through the local MQTT broker, libkovproto holds the protocol
buffer messages exchanged with them.")

# The public headers include protobuf's and the generated message headers; mosquitto and
# the other libraries stay private to libmurntavi.
set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME libmurntavi-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS
    "${_same_runtime}, libprotobuf-dev (>= ${Protobuf_VERSION})")
set(CPACK_COMPONENT_DEVEL_DESCRIPTION
    "C++ SDK for the platform services of a vehicle telematics unit (development files)
Headers, the message definitions, the CMake package (find_package(murntavi),
target murntavi::murntavi) and murntavi.pc for pkg-config.")

# The simulator starts its own mosquitto when asked to.
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME murntavi-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${_same_runtime}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS mosquitto)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Platform simulator and command-line tool for murntavi
tavi-sim simulates a unit's platform services (libmurntavi-sim, its headers and
CMake targets hold the daemons and a test kit for applications), tavictl sees and
pokes a unit's services, libmurntavi_rtsupport is the sample real-time support
library and share/murntavi/unit.conf the sample unit.")

include(CPack)
