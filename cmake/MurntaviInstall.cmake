# Installed tree: the libraries, public headers, a CMake package (find_package(murntavi),
# target murntavi::murntavi) and murntavi.pc for pkg-config.
include(CMakePackageConfigHelpers)

# Installed libraries find each other beside themselves: a program linked with
# --as-needed names only libmurntavi, which must then find libkovproto on its own.
set_target_properties(murntavi kovproto PROPERTIES INSTALL_RPATH "\$ORIGIN")
install(TARGETS murntavi EXPORT murntaviTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT murntaviTargets NAMESPACE murntavi::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/murntavi)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/murntaviConfig.cmake.in
    ${PROJECT_BINARY_DIR}/murntaviConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/murntavi)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/murntaviConfigVersion.cmake
    VERSION ${MURNTAVI_LIB_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/murntaviConfig.cmake
    ${PROJECT_BINARY_DIR}/murntaviConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/murntavi)
# The prefix is found from the .pc file's own place, so the tree works wherever it is
# installed or moved to.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(MURNTAVI_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH _pc_to_prefix "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
    string(REGEX REPLACE "/$" "" _pc_to_prefix "${_pc_to_prefix}")
    set(MURNTAVI_PC_PREFIX "\${pcfiledir}/${_pc_to_prefix}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/murntavi.pc.in ${PROJECT_BINARY_DIR}/murntavi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/murntavi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
