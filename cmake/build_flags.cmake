# How every target of the project is compiled.

# If an including project has chosen a later standard, that one is kept.
if(NOT CMAKE_C_STANDARD OR CMAKE_C_STANDARD MATCHES "^(90|99)$")
    set(CMAKE_C_STANDARD 11)
endif()
if(NOT CMAKE_CXX_STANDARD OR CMAKE_CXX_STANDARD MATCHES "^(98|11|14)$")
    set(CMAKE_CXX_STANDARD 17)
endif()
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()

# Messages name files relative to the repository, and the paths of the checkout and of the build
# folder do not get into the binaries.
add_compile_options(
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
    "-ffile-prefix-map=${PROJECT_BINARY_DIR}=."
)

if(ROVA_SANITIZE)
    add_compile_options("-fsanitize=${ROVA_SANITIZE}" -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    add_link_options("-fsanitize=${ROVA_SANITIZE}")
endif()

# Programs in the build folder find its libraries relative to themselves.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# The library reads untrusted bytes, so overwritten memory must be detected. Sanitizers detect more,
# in their own way.
if(ROVA_HARDENING AND NOT ROVA_SANITIZE)
    add_compile_options(-fstack-protector-strong -fcf-protection
        # This needs optimisation, and warns without it.
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
    add_link_options(LINKER:-z,relro LINKER:-z,now)
endif()

# The project's own warnings; a target asks for them by linking this.
add_library(rova_warnings INTERFACE)
target_compile_options(rova_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wformat=2 -Wundef
    $<$<BOOL:${ROVA_WERROR}>:-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>
)
if(ROVA_SANITIZE)
    # gcc warns of uninitialised values in std::regex when it is instrumented. Other builds keep the
    # warning.
    target_compile_options(rova_warnings INTERFACE
        $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-maybe-uninitialized>)
endif()
