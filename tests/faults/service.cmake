# vt_service_fault_tests: the service over a private bus against hosts and clients that misbehave:
# replies the bus would refuse, arguments sd-bus will not read, clients that leave with requests
# queued.
if(NOT TARGET vt_servicetest OR NOT TARGET vt_fakehost OR NOT TARGET vt_github)
    message(STATUS "tests/faults: the service harness, fake host or GitHub adapter is missing; "
                   "skipping the service fault tests")
    return()
endif()

add_executable(vt_service_fault_tests
    ${CMAKE_CURRENT_LIST_DIR}/service_replies_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/service_arguments_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/service_departures_test.cpp)
target_link_libraries(vt_service_fault_tests PRIVATE vt_servicetest vt_fakehost vt_github
                      GTest::gtest_main)
gtest_discover_tests(vt_service_fault_tests DISCOVERY_TIMEOUT 60)
