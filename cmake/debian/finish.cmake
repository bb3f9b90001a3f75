# What Debian asks of the files of a package and CPack does not do by itself.

file(GLOB_RECURSE archives "${CPACK_TEMPORARY_DIRECTORY}/*.a")
foreach(archive IN LISTS archives)
    execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archive}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()

file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/*.1")
foreach(page IN LISTS pages)
    execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
