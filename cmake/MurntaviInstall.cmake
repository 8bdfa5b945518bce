# Installed tree: the libraries, public headers, a CMake package (find_package(murntavi),
# target murntavi::murntavi) and murntavi.pc for pkg-config. Every file belongs to one
# component, one Debian package each (cmake/MurntaviPackage.cmake): runtime (the shared
# libraries), devel (headers, link names, CMake package, murntavi.pc) and tools.
include(CMakePackageConfigHelpers)

# Installed libraries find each other beside themselves: a program linked with
# --as-needed names only libmurntavi, which must then find libkovproto on its own. The
# tools find them from the program directory, so the tree runs from wherever it is put.
set_target_properties(murntavi kovproto PROPERTIES INSTALL_RPATH "\$ORIGIN")
if(MURNTAVI_TOOLS)
    file(RELATIVE_PATH _bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(murntavi-sim PROPERTIES INSTALL_RPATH "\$ORIGIN")
    set_target_properties(tavi-sim tavictl PROPERTIES INSTALL_RPATH "\$ORIGIN/${_bin_to_lib}")
endif()
install(TARGETS murntavi EXPORT murntaviTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT devel)
install(EXPORT murntaviTargets NAMESPACE murntavi::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/murntavi COMPONENT devel)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/murntaviConfig.cmake.in
    ${PROJECT_BINARY_DIR}/murntaviConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/murntavi)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/murntaviConfigVersion.cmake
    VERSION ${MURNTAVI_LIB_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/murntaviConfig.cmake
    ${PROJECT_BINARY_DIR}/murntaviConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/murntavi COMPONENT devel)
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
install(FILES ${PROJECT_BINARY_DIR}/murntavi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT devel)
