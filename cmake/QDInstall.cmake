# qd_install_library(): what `cmake --install` puts where. The folders are relative to the prefix, and nothing installed
# names it, so that an installed tree can be moved.
#   component runtime        the shared library
#   component development    the headers of QD_PUBLIC_HEADERS, the CMake package QDPlatform, qdplatform.pc
#
# qd_package_library(): sets up CPack, which makes the Debian packages libqdplatform and libqdplatform-dev of the two
# components. scripts/package calls it for each architecture.

include(CMakePackageConfigHelpers)

function(qd_install_library)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
        message(FATAL_ERROR "CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be relative to the prefix")
    endif()
    set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/QDPlatform)

    install(TARGETS QDPlatform EXPORT QDPlatformTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
    install(FILES ${QD_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QDPlatform COMPONENT development)

    install(EXPORT QDPlatformTargets NAMESPACE QDPlatform:: DESTINATION ${packageDir} COMPONENT development)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QDPlatformConfig.cmake.in
        ${PROJECT_BINARY_DIR}/QDPlatformConfig.cmake INSTALL_DESTINATION ${packageDir} NO_SET_AND_CHECK_MACRO)
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/QDPlatformConfigVersion.cmake
        COMPATIBILITY SameMajorVersion)
    install(FILES ${PROJECT_BINARY_DIR}/QDPlatformConfig.cmake ${PROJECT_BINARY_DIR}/QDPlatformConfigVersion.cmake
        DESTINATION ${packageDir} COMPONENT development)

    # From the folder of the .pc file up to the prefix: "../.." for lib/pkgconfig.
    file(RELATIVE_PATH pathToPrefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    string(REGEX REPLACE "/$" "" pathToPrefix ${pathToPrefix})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/qdplatform.pc.in ${PROJECT_BINARY_DIR}/qdplatform.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/qdplatform.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()

# A macro, because include(CPack) reads the caller's variables.
macro(qd_package_library)
    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGE_VENDOR "Quendrel")
    set(CPACK_PACKAGE_CONTACT "Quendrel SCADA platform team <platform@quendrel.example>")
    # Each package's description has its own first line; CPack would put this in front.
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
    set(CPACK_STRIP_FILES ON)
    # Whatever the umask of whoever builds the packages.
    set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL runtime development)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
    set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqdplatform)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
    # Loaded at run time, and only where they are needed.
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "libpam0g, libsystemd0")
    # Debian's way to have the loader's cache renewed.
    file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
    set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "platform layer of the Quendrel SCADA server
One shared library of C++ classes for everything that the server's programs
ask of Linux: text in UTF-8, time, threads and locks, logs, files, sockets,
TCP and UDP servers, URL transfers, and the host's services.")

    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqdplatform-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libqdplatform (= ${PROJECT_VERSION}), libcurl4-openssl-dev")
    set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "platform layer of the Quendrel SCADA server - development files
The headers of libqdplatform, its CMake package QDPlatform and its
pkg-config file qdplatform.")

    if(CMAKE_CROSSCOMPILING)
        # CPack takes the build machine's architecture, and the libraries that ours needs lie in the sysroot.
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${QD_DEBIAN_ARCHITECTURE})
        set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
            ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
    endif()
    include(CPack)
endmacro()
