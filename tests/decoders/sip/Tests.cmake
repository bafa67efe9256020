# The message decoders' plain parts, built in from their source: the
# first-line judgement of HTTP, SIP, RTSP and SSDP on the rows of
# firstlines.txt, and the media parsers on the rows of media.txt. Their
# conversations are in sip.conv and the other .conv files.
add_executable(kest_sip_tests ${CMAKE_CURRENT_LIST_DIR}/MessagePartsTests.cpp
                              ${CMAKE_SOURCE_DIR}/decoders/message/MessageLine.cpp
                              ${CMAKE_SOURCE_DIR}/decoders/message/Media.cpp)
target_include_directories(kest_sip_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders
                                                  ${CMAKE_SOURCE_DIR}/tests/web)
target_link_libraries(kest_sip_tests PRIVATE kest kest_test_support GTest::gtest_main)
target_compile_definitions(kest_sip_tests PRIVATE
                           KEST_TEST_FIRST_LINES="${CMAKE_CURRENT_LIST_DIR}/firstlines.txt"
                           KEST_TEST_MEDIA="${CMAKE_CURRENT_LIST_DIR}/media.txt")
gtest_discover_tests(kest_sip_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
