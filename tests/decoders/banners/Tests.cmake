# Lines read from a stream and FTP's announcements, as pure functions. The
# line-dialogue decoders' conversations, FTP's data connections among them,
# are in banners.conv.
add_executable(kest_banner_tests ${CMAKE_CURRENT_LIST_DIR}/TextLineReads.cpp)
target_include_directories(kest_banner_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders)
target_link_libraries(kest_banner_tests PRIVATE kest kest_test_support GTest::gtest_main)
target_compile_definitions(kest_banner_tests PRIVATE
                           KEST_TEST_FTP_ANNOUNCEMENTS="${CMAKE_CURRENT_LIST_DIR}/announcements.txt")
gtest_discover_tests(kest_banner_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
