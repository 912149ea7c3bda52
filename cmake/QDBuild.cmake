# qd_compile_settings(TARGET): language level, warnings, sanitizers and coverage, alike for all that we build.
#
# qd_build_library(UMBRELLA NAME): makes the targets from what qd_sources() collected.
#   qdplatform-objects     every source, compiled once; the tests of private code link it
#   QDPlatform::QDPlatform the shared library that users link

find_package(Threads REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(ZLIB REQUIRED)
# Declarations only: both libraries are loaded at run time, where they are needed.
find_path(QD_SYSTEMD_INCLUDE_DIR systemd/sd-bus.h DOC "Headers of libsystemd")
find_path(QD_PAM_INCLUDE_DIR security/pam_appl.h DOC "Headers of Linux-PAM")
if(NOT QD_SYSTEMD_INCLUDE_DIR OR NOT QD_PAM_INCLUDE_DIR)
    message(FATAL_ERROR "systemd/sd-bus.h or security/pam_appl.h is missing (Debian: libsystemd-dev, libpam0g-dev)")
endif()
mark_as_advanced(QD_SYSTEMD_INCLUDE_DIR QD_PAM_INCLUDE_DIR)

function(qd_compile_settings target)
    set_target_properties(${target} PROPERTIES CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wconversion -Wshadow
        # GCC warns only where this target needs the alignment, unless it is told that another one may.
        $<IF:$<CXX_COMPILER_ID:GNU>,-Wcast-align=strict,-Wcast-align>
        $<$<BOOL:${QD_DEVELOPER}>:-Werror>
        # Assertions name their file: QDPlatform/X.cpp, wherever the build took place.
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
        target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
        # No notes on how compilers before GCC 7.1 passed arguments.
        target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-psabi>)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_compile_options(${target} PRIVATE -Wthread-safety)
    endif()
    if(QD_SANITIZE)
        # Without vptr: that check opens a pipe to look at an object, and finds fault with every object where a test has
        # left the process no descriptor.
        target_compile_options(${target} PRIVATE
            -fsanitize=${QD_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=${QD_SANITIZE})
    endif()
    if(QD_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage)
        target_link_options(${target} PRIVATE --coverage)
    endif()
endfunction()

function(qd_build_library)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "UMBRELLA" "")
    set(publicHeaders ${QD_PUBLIC_HEADERS} QDPlatform/${arg_UMBRELLA}.h)

    add_library(qdplatform-objects OBJECT ${QD_SOURCES})
    qd_compile_settings(qdplatform-objects)
    set_target_properties(qdplatform-objects PROPERTIES
        POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    target_include_directories(qdplatform-objects PUBLIC ${PROJECT_SOURCE_DIR}
        PRIVATE ${QD_SYSTEMD_INCLUDE_DIR} ${QD_PAM_INCLUDE_DIR})
    target_link_libraries(qdplatform-objects PUBLIC CURL::libcurl OpenSSL::Crypto Threads::Threads)

    add_library(QDPlatform SHARED $<TARGET_OBJECTS:qdplatform-objects>)
    add_library(QDPlatform::QDPlatform ALIAS QDPlatform)
    qd_compile_settings(QDPlatform)
    target_compile_features(QDPlatform PUBLIC cxx_std_17)
    target_include_directories(QDPlatform PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    # The URL requests hand out libcurl's handle, for options of a user's own; all else is the library's own affair.
    target_link_libraries(QDPlatform PUBLIC CURL::libcurl
        PRIVATE OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB Threads::Threads ${CMAKE_DL_LIBS})
    # --no-as-needed: each dependency stands in the library's NEEDED list, whether or not a call is made into it.
    # --enable-new-dtags: the path is a RUNPATH, which LD_LIBRARY_PATH can override on a bench.
    # -Bsymbolic-functions: calls within the library are bound when it is linked, which halves the relocations of each load.
    target_link_options(QDPlatform PRIVATE LINKER:--no-as-needed LINKER:--enable-new-dtags LINKER:-z,relro,-z,now
        LINKER:-Bsymbolic-functions LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/QDPlatform.map)
    set_property(TARGET QDPlatform PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/QDPlatform.map)
    if(NOT QD_SANITIZE) # a sanitizer's runtime is found in the program, not in the library
        target_link_options(QDPlatform PRIVATE LINKER:-z,defs)
    endif()
    # The build tree's library has the shipped run path, so that the tests look at what users get.
    set_target_properties(QDPlatform PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN/../lib/quendrel-scada;$ORIGIN")

    set(QD_PUBLIC_HEADERS ${publicHeaders} PARENT_SCOPE)
endfunction()
