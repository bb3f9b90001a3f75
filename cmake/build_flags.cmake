# How every target of the project is compiled.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 17)
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

# Messages show files as the repository names them, and neither the folder it was checked out into
# nor that of the build gets into what is built.
add_compile_options(
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
    "-ffile-prefix-map=${PROJECT_BINARY_DIR}=."
)

if(ROVA_SANITIZE)
    add_compile_options("-fsanitize=${ROVA_SANITIZE}" -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    add_link_options("-fsanitize=${ROVA_SANITIZE}")
endif()

# The project's own warnings; a target asks for them by linking this.
add_library(rova_warnings INTERFACE)
target_compile_options(rova_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wformat=2 -Wundef
    # Within another project they are its compiler's, which may know new ones.
    $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>
)
if(ROVA_SANITIZE)
    # gcc sees uninitialised values in std::regex once it is instrumented. The other builds look.
    target_compile_options(rova_warnings INTERFACE
        $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-maybe-uninitialized>)
endif()
