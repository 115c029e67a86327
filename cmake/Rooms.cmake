# A room is one folder and one static library. It may use what it lists under USES and nothing else: the link order is
# the check, together with `packaging/check-includes`.
#
#   fieldwarden_room(platform_log SOURCES Logger.cpp … USES fmt::fmt …)
function(fieldwarden_room name)
    cmake_parse_arguments(ROOM "" "" "SOURCES;USES;USES_INSIDE" ${ARGN})
    add_library(${name} STATIC ${ROOM_SOURCES})
    target_link_libraries(${name} PUBLIC ${ROOM_USES} PRIVATE ${ROOM_USES_INSIDE})
endfunction()

# A test program: every source is one test file; ctest sees each test of it.
#
#   fieldwarden_test(platform_log_test SOURCES LoggerTest.cpp USES … [LABELS …] [LOCKS …])
#
# LOCKS names things of the machine that one test at a time may use. Every test that opens the library on a simulated
# instrument, or makes /tmp/lockmock, takes `instrument`.
function(fieldwarden_test name)
    cmake_parse_arguments(TEST "" "" "SOURCES;USES;LABELS;LOCKS" ${ARGN})
    add_executable(${name} ${TEST_SOURCES})
    target_link_libraries(${name} PRIVATE ${TEST_USES} tests_support GTest::gmock GTest::gtest_main)
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    if(NOT TEST_LABELS)
        set(TEST_LABELS unit)
    endif()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                         PROPERTIES LABELS "${TEST_LABELS}" TIMEOUT 120 RESOURCE_LOCK "${TEST_LOCKS}")
endfunction()
