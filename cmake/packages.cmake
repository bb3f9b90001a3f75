# Debian packages, one for each component of the installation: cpack -G DEB in the build folder.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr: that decides on the folder of the libraries.

set(contact "rova maintainers <maintainers@rova.example>")

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL rova_common rova_soft_platform rova_dev rova_tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_VENDOR rova)
set(CPACK_PACKAGE_CONTACT "${contact}")
# Each package says by itself what it is.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Packages of one version go together.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_ROVA_DEV_DEPENDS rova_common rova_soft_platform)
set(CPACK_COMPONENT_ROVA_TOOLS_DEPENDS rova_common rova_soft_platform)

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
foreach(pair CHANGELOG.md:changelog.gz ${PROJECT_BINARY_DIR}/debian/changelog:changelog.Debian.gz)
    string(REPLACE ":" ";" pair ${pair})
    list(GET pair 0 plain)
    list(GET pair 1 packed)
    execute_process(COMMAND gzip -9n
        INPUT_FILE ${plain}
        OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/${packed}
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# rova_debian_package(COMPONENT PACKAGE SECTION TITLE DESCRIPTION): a plain installation leaves out
# what goes to share/doc/PACKAGE.
function(rova_debian_package component package section title description)
    string(TOUPPER ${component} key)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${package} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_SHLIBDEPS ON PARENT_SCOPE)
    set(CPACK_COMPONENT_${key}_DESCRIPTION "${title}\n${description}" PARENT_SCOPE)
    install(
        FILES
            ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
            ${PROJECT_BINARY_DIR}/debian/changelog.gz
            ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
        COMPONENT ${component}
        EXCLUDE_FROM_ALL
    )
endfunction()

# rova_debian_library(LIBRARY PACKAGE): what it takes for other packages to depend on the library.
# The range of versions is that of the CMake package.
function(rova_debian_library library package)
    set(below "")
    if(PROJECT_VERSION_MAJOR EQUAL 0)
        math(EXPR next "${PROJECT_VERSION_MINOR} + 1")
        set(below ", ${package} (<< 0.${next}~)")
    endif()
    set(folder ${PROJECT_BINARY_DIR}/debian/${library})
    file(WRITE ${folder}/shlibs
        "lib${library} ${PROJECT_VERSION_MAJOR} ${package} (>= ${PROJECT_VERSION})${below}\n")
    file(WRITE ${folder}/triggers "activate-noawait ldconfig\n")
    string(TOUPPER ${library} key)
    set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA "${folder}/shlibs;${folder}/triggers"
        PARENT_SCOPE)
endfunction()

rova_debian_package(rova_common librova-common${PROJECT_VERSION_MAJOR} libs
    "memory regions for network devices"
    "Makes memory known to a network device, so that the device may access it, and
hands such a region to another process. Host memory, dma-bufs, GPU memory and
memory of an accelerator on the network card.
.
A program needs a platform beside this library: that of its hardware, or the
software platform.")
set(CPACK_DEBIAN_ROVA_COMMON_PACKAGE_RECOMMENDS librova-soft-platform${PROJECT_VERSION_MAJOR})

rova_debian_package(rova_soft_platform librova-soft-platform${PROJECT_VERSION_MAJOR} libs
    "memory regions for network devices - software platform"
    "A network device, a GPU and an accelerator made of nothing but Linux. The
device really reads and writes the memory registered with it, so that programs
can be tried and tested without hardware.")

rova_debian_package(rova_dev librova-dev libdevel
    "memory regions for network devices - development files"
    "Headers, static libraries, CMake package and pkg-config files, for applications
and for those who write a platform for their own hardware.")
# What the static libraries and the internal headers ask for.
set(CPACK_DEBIAN_ROVA_DEV_PACKAGE_DEPENDS libjson-c-dev)
set(CPACK_DEBIAN_ROVA_DEV_PACKAGE_SHLIBDEPS OFF)

rova_debian_package(rova_tools rova-tools utils
    "memory regions for network devices - command-line tool"
    "rova_umem registers memory of each kind with a software device and shows that
it works, shares it between processes, and explains the descriptors by which
regions are handed over.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/libs/rova_common ${PROJECT_BINARY_DIR}/platform/soft)

rova_debian_library(rova_common librova-common${PROJECT_VERSION_MAJOR})
rova_debian_library(rova_soft_platform librova-soft-platform${PROJECT_VERSION_MAJOR})

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/finish.cmake)
include(CPack)
