# The QUIC decoder's packet and crypto code as pure functions on the rows of
# vectors.txt, and the packed plug-in without tls.plg. Its conversations
# with tls.plg beside it are in quic.conv.
if(TARGET quic AND TARGET tcp AND TARGET udp AND TARGET wire)
  add_executable(kest_quic_tests ${CMAKE_CURRENT_LIST_DIR}/QuicPacketCases.cpp
                                 ${CMAKE_CURRENT_LIST_DIR}/QuicPluginRuns.cpp)
  target_include_directories(kest_quic_tests PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kest_quic_tests PRIVATE kest kest_test_support kest_quic_packet
                                                GTest::gtest_main)
  add_dependencies(kest_quic_tests quic tcp udp wire)
  foreach(plugin quic tcp udp wire)
    get_target_property(_plg ${plugin} KEST_PLUGIN_FILE)
    string(TOUPPER ${plugin} _upper)
    target_compile_definitions(kest_quic_tests PRIVATE KEST_TEST_${_upper}_PLG="${_plg}")
  endforeach()
  target_compile_definitions(kest_quic_tests PRIVATE
                             KEST_TEST_QUIC_VECTORS="${CMAKE_CURRENT_LIST_DIR}/vectors.txt")
  gtest_discover_tests(kest_quic_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endif()
