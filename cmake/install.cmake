# Installs the CMake package, the pkg-config files, the documents and the examples.

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

# The files find the prefix relative to themselves, so that it can be moved. This is not possible for
# folders that are given as absolute paths.
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH pc_prefix /prefix/${pkgconfig} /prefix)
    string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
set(pc_libdir ${CMAKE_INSTALL_LIBDIR})
set(pc_includedir ${CMAKE_INSTALL_INCLUDEDIR})
foreach(folder pc_libdir pc_includedir)
    if(NOT IS_ABSOLUTE ${${folder}})
        string(PREPEND ${folder} "\${prefix}/")
    endif()
endforeach()
set(modules rova rova-common rova-platform rova-soft-platform rova-internal)
if(TARGET rova_fabric_platform)
    list(APPEND modules rova-fabric-platform)
endif()
foreach(module IN LISTS modules)
    configure_file(cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${module}.pc DESTINATION ${pkgconfig} COMPONENT rova_dev)
endforeach()

# Documents and examples, in the same folders as in the repository, so that the links between them
# work. The CMakeLists.txt of all examples is left out: each folder is a separate project.
set(docdir ${CMAKE_INSTALL_DOCDIR})
if(NOT PROJECT_IS_TOP_LEVEL)
    # That is the documentation of the project around this one.
    set(docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/rova)
endif()
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${docdir} COMPONENT rova_doc)
install(DIRECTORY docs/ DESTINATION ${docdir}/docs COMPONENT rova_doc
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
# Not the whole folders: somebody may have built the examples where they are.
file(GLOB examples RELATIVE ${PROJECT_SOURCE_DIR}/examples CONFIGURE_DEPENDS
    examples/*.c examples/*/*.c examples/*/*.h examples/*/*.cpp examples/*/CMakeLists.txt)
foreach(example IN LISTS examples)
    get_filename_component(folder ${example} DIRECTORY)
    install(FILES examples/${example} DESTINATION ${docdir}/examples/${folder} COMPONENT rova_doc)
endforeach()
install(PROGRAMS examples/hand_over/run.sh DESTINATION ${docdir}/examples/hand_over
    COMPONENT rova_doc)
