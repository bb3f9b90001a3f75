# What is installed beside the targets: the CMake package and the pkg-config files.

include(CMakePackageConfigHelpers)

# Until 1.0.0 a minor version may change an interface.
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatibility SameMinorVersion)
else()
    set(compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/rova-config-version.cmake
    COMPATIBILITY ${compatibility})
configure_package_config_file(cmake/rova-config.cmake.in ${PROJECT_BINARY_DIR}/rova-config.cmake
    INSTALL_DESTINATION ${ROVA_INSTALL_CMAKE}
    NO_SET_AND_CHECK_MACRO)
install(
    FILES
        ${PROJECT_BINARY_DIR}/rova-config.cmake
        ${PROJECT_BINARY_DIR}/rova-config-version.cmake
    DESTINATION ${ROVA_INSTALL_CMAKE}
    COMPONENT rova_dev
)

# The files find their prefix from where they lie, wherever it was installed or moved to.
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix /prefix/${pkgconfig} /prefix)
string(REGEX REPLACE "/$" "" prefix "${prefix}")
foreach(module common soft-platform internal)
    configure_file(cmake/rova-${module}.pc.in ${PROJECT_BINARY_DIR}/rova-${module}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/rova-${module}.pc
        DESTINATION ${pkgconfig} COMPONENT rova_dev)
endforeach()
