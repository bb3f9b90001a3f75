# How the libraries are made and installed. Each target rova_NAME is the component NAME of the
# installed package, and rova::NAME there as well as here.

set(ROVA_INSTALL_PUBLIC_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/rova)
set(ROVA_INSTALL_INTERNAL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/rova-internal)
set(ROVA_INSTALL_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/rova)

# Builds everything that is installed, and nothing else.
add_custom_target(rova_installed)

# rova_target_headers(TARGET BASE_DIRS FOLDER... FILES FILE...): the headers that users of the
# target include. These are not CMake file sets, which versions before 3.23 and other build systems
# that read the installed package do not know.
function(rova_target_headers target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "BASE_DIRS;FILES")
    set(scope PUBLIC)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY")
        set(scope INTERFACE)
    endif()
    foreach(folder IN LISTS arg_BASE_DIRS)
        get_filename_component(folder ${folder} ABSOLUTE)
        target_include_directories(${target} ${scope} $<BUILD_INTERFACE:${folder}>)
        foreach(file IN LISTS arg_FILES)
            get_filename_component(file ${file} ABSOLUTE)
            file(RELATIVE_PATH name ${folder} ${file})
            if(NOT name MATCHES "^\\.\\.")
                set_property(TARGET ${target} APPEND PROPERTY ROVA_HEADER_FOLDERS ${folder})
                set_property(TARGET ${target} APPEND PROPERTY ROVA_HEADERS ${name})
            endif()
        endforeach()
    endforeach()
endfunction()

# rova_install(NAME [HEADERS FOLDER]): installs the target rova_NAME, and what rova_target_headers
# listed for it into the folder.
function(rova_install name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "HEADERS" "")
    add_library(rova::${name} ALIAS rova_${name})
    set_target_properties(rova_${name} PROPERTIES EXPORT_NAME ${name})
    add_dependencies(rova_installed rova_${name})
    if(arg_HEADERS)
        target_include_directories(rova_${name} INTERFACE $<INSTALL_INTERFACE:${arg_HEADERS}>)
    endif()
    if(NOT ROVA_INSTALL)
        return()
    endif()

    get_target_property(headers rova_${name} ROVA_HEADERS)
    if(arg_HEADERS AND NOT headers)
        message(FATAL_ERROR "List the headers of rova_${name} with rova_target_headers.")
    elseif(arg_HEADERS)
        get_target_property(folders rova_${name} ROVA_HEADER_FOLDERS)
        foreach(folder file IN ZIP_LISTS folders headers)
            get_filename_component(below "${file}" DIRECTORY)
            install(FILES ${folder}/${file} DESTINATION ${arg_HEADERS}/${below} COMPONENT rova_dev)
        endforeach()
    endif()
    install(TARGETS rova_${name} EXPORT rova_${name}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT rova_${name}
            NAMELINK_COMPONENT rova_dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT rova_dev
    )
    install(EXPORT rova_${name}
        FILE rova-${name}.cmake
        NAMESPACE rova::
        DESTINATION ${ROVA_INSTALL_CMAKE}
        COMPONENT rova_dev
    )
endfunction()

# rova_add_libraries(NAME MAP FILE INTERFACE HEADERS...)
#
# Makes rova_NAME, shared, with the symbols of the map, and rova_NAME_static, both from the objects
# of rova_NAME_objects.
function(rova_add_libraries name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "MAP" "INTERFACE")
    set(map ${CMAKE_CURRENT_SOURCE_DIR}/${arg_MAP})

    add_library(rova_${name} SHARED $<TARGET_OBJECTS:rova_${name}_objects>)
    target_link_options(rova_${name} PRIVATE "LINKER:--version-script=${map}")
    set_target_properties(rova_${name} PROPERTIES
        LINKER_LANGUAGE CXX
        LINK_DEPENDS ${map}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
    )
    # A library that needs another one finds it relative to itself, also when installed. In a folder
    # that the system searches anyway, it has no such path.
    if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
        set_target_properties(rova_${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()

    add_library(rova_${name}_static STATIC $<TARGET_OBJECTS:rova_${name}_objects>)
    set_target_properties(rova_${name}_static PROPERTIES
        LINKER_LANGUAGE CXX
        OUTPUT_NAME rova_${name}
    )
    # A program in C must be told to link the C++ library.
    target_link_libraries(rova_${name}_static INTERFACE stdc++ m)

    foreach(library rova_${name} rova_${name}_static)
        target_link_libraries(${library} INTERFACE ${arg_INTERFACE})
    endforeach()
    rova_install(${name})
    rova_install(${name}_static)
endfunction()
