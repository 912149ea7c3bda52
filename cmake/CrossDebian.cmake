# For the toolchain files: cross builds with Debian's compilers, against a sysroot of scripts/armhf-sysroot. The caller
# has set QD_DEBIAN_ARCHITECTURE, CMAKE_LIBRARY_ARCHITECTURE (the compiler's triplet) and CMAKE_SYSTEM_PROCESSOR.
set(CMAKE_SYSTEM_NAME Linux)

# try_compile() reads a toolchain file anew, without this project's cache; the path is handed on to it.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QD_SYSROOT)
if(QD_SYSROOT AND NOT IS_DIRECTORY "${QD_SYSROOT}")
    message(FATAL_ERROR "${QD_SYSROOT} is gone, and this build is made of what it found there. Delete the build folder.")
endif()
if(NOT QD_SYSROOT)
    execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/armhf-sysroot --path ${QD_DEBIAN_ARCHITECTURE}
        OUTPUT_VARIABLE qdSysroot OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_VARIABLE qdError RESULT_VARIABLE qdResult)
    if(NOT qdResult EQUAL 0)
        message(FATAL_ERROR "${qdError}")
    endif()
    set(QD_SYSROOT "${qdSysroot}" CACHE PATH "Headers and libraries of the target")
endif()
set(CMAKE_SYSROOT "${QD_SYSROOT}")

set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${CMAKE_CURRENT_LIST_DIR}/../scripts/emulate;${QD_DEBIAN_ARCHITECTURE};${CMAKE_SYSROOT}")
