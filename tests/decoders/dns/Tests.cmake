# The DNS decoder's tests: the message reader and the risk rules as pure
# functions, and the packed plug-in on the road with the transports and the
# whole-packet decoder.
if(TARGET dns AND TARGET tcp AND TARGET udp AND TARGET wire)
  add_executable(kest_dns_tests ${CMAKE_CURRENT_LIST_DIR}/DnsMessageCases.cpp
                                ${CMAKE_CURRENT_LIST_DIR}/DnsPluginRuns.cpp
                                ${CMAKE_CURRENT_LIST_DIR}/DnsRiskNames.cpp)
  target_compile_definitions(kest_dns_tests
                             PRIVATE KEST_TEST_DNS_NAMES="${CMAKE_CURRENT_LIST_DIR}/names.txt")
  target_include_directories(kest_dns_tests PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kest_dns_tests PRIVATE kest kest_test_support kest_dns_message
                                               GTest::gtest_main)
  add_dependencies(kest_dns_tests dns tcp udp wire)
  foreach(plugin dns tcp udp wire)
    get_target_property(_plg ${plugin} KEST_PLUGIN_FILE)
    string(TOUPPER ${plugin} _upper)
    target_compile_definitions(kest_dns_tests PRIVATE KEST_TEST_${_upper}_PLG="${_plg}")
  endforeach()
  gtest_discover_tests(kest_dns_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endif()
