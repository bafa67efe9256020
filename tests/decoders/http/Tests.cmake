# The HTTP dialect's first-line judgement, built in from its source. What the
# packed decoder names and reports is in http.conv and the goldens.
add_executable(kest_http_tests ${CMAKE_CURRENT_LIST_DIR}/HttpSniffTests.cpp
                               ${CMAKE_SOURCE_DIR}/decoders/message/MessageLine.cpp)
target_include_directories(kest_http_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders
                                                   ${CMAKE_SOURCE_DIR}/tests/web)
target_link_libraries(kest_http_tests PRIVATE kest kest_test_support GTest::gtest_main)
gtest_discover_tests(kest_http_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
