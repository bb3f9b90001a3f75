# How the libraries are made and installed. Each target rova_NAME is the component NAME of the
# installed package, and rova::NAME there as well as here.

set(ROVA_INSTALL_PUBLIC_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/rova)
set(ROVA_INSTALL_INTERNAL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/rova-internal)
set(ROVA_INSTALL_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/rova)

# rova_install(NAME [HEADERS FOLDER]): installs the target rova_NAME, its headers into the folder.
function(rova_install name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "HEADERS" "")
    add_library(rova::${name} ALIAS rova_${name})
    set_target_properties(rova_${name} PROPERTIES EXPORT_NAME ${name})

    set(headers)
    if(arg_HEADERS)
        set(headers FILE_SET HEADERS DESTINATION ${arg_HEADERS} COMPONENT rova_dev)
    endif()
    install(TARGETS rova_${name} EXPORT rova_${name}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT rova_${name}
            NAMELINK_COMPONENT rova_dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT rova_dev
        ${headers}
    )
    install(EXPORT rova_${name}
        FILE rova-${name}.cmake
        NAMESPACE rova::
        DESTINATION ${ROVA_INSTALL_CMAKE}
        COMPONENT rova_dev
    )
endfunction()

# rova_add_libraries(NAME MAP FILE [PRIVATE LIBRARY...] INTERFACE HEADERS...)
#
# Makes rova_NAME, shared, with the symbols of the map, and rova_NAME_static, both of the objects of
# rova_NAME_objects.
function(rova_add_libraries name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "MAP" "PRIVATE;INTERFACE")
    set(map ${CMAKE_CURRENT_SOURCE_DIR}/${arg_MAP})

    add_library(rova_${name} SHARED $<TARGET_OBJECTS:rova_${name}_objects>)
    target_link_options(rova_${name} PRIVATE "LINKER:--version-script=${map}")
    set_target_properties(rova_${name} PROPERTIES
        LINKER_LANGUAGE CXX
        LINK_DEPENDS ${map}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
    )

    add_library(rova_${name}_static STATIC $<TARGET_OBJECTS:rova_${name}_objects>)
    set_target_properties(rova_${name}_static PROPERTIES
        LINKER_LANGUAGE CXX
        OUTPUT_NAME rova_${name}
    )
    # A program in C has to be told of the C++ library beneath.
    target_link_libraries(rova_${name}_static INTERFACE $<INSTALL_INTERFACE:stdc++> m)

    foreach(library rova_${name} rova_${name}_static)
        target_link_libraries(${library} PRIVATE ${arg_PRIVATE} INTERFACE ${arg_INTERFACE})
    endforeach()
    rova_install(${name})
    rova_install(${name}_static)
endfunction()
