# qd_add_test(NAME [PRIVATE_CODE] [THREADS] [LABEL label] [LIBRARIES lib...])
#
# Builds NAME.cpp with the test support and gives each of its tests to CTest; in a cross build the whole program as one
# test, since starting a program under the emulator takes longer than most tests. PRIVATE_CODE links the library's objects
# instead of the shared library, for what is not exported. THREADS: the test, or a program that it runs, has several
# threads; ThreadSanitizer has nothing to see in the others, so its preset leaves them out. LABEL is unit (the default),
# fault, stress or exhaustive.
include(GoogleTest)

function(qd_add_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "PRIVATE_CODE;THREADS" "LABEL" "LIBRARIES")
    if(QD_SANITIZE STREQUAL "thread" AND NOT arg_THREADS)
        return()
    endif()
    get_filename_component(target ${name} NAME)
    add_executable(${target} ${name}.cpp)
    qd_compile_settings(${target})
    # The library is tested as shipped; the tests themselves need not be as fast, and compile in half the time.
    if(QD_SANITIZE)
        target_compile_options(${target} PRIVATE -O0)
    else()
        target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-O1>)
    endif()
    target_link_libraries(${target} PRIVATE qd-test-support ${arg_LIBRARIES})
    if(arg_PRIVATE_CODE)
        target_link_libraries(${target} PRIVATE qdplatform-objects)
    else()
        target_link_libraries(${target} PRIVATE QDPlatform::QDPlatform)
    endif()
    if(NOT arg_LABEL)
        set(arg_LABEL unit)
    endif()
    if(CMAKE_CROSSCOMPILING)
        add_test(NAME ${target} COMMAND ${target} --gtest_brief=1)
        set_tests_properties(${target} PROPERTIES LABELS ${arg_LABEL})
    else()
        gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES LABELS ${arg_LABEL})
    endif()
endfunction()
