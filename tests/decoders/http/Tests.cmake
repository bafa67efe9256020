# The HTTP decoder's tests, in a program of their own: the first-line
# judgement (the HTTP dialect of the message decoder) built in from its
# source, and the packed plug-ins on the loopback capture (read with
# libpcap, when there is one).
if(TARGET http AND TARGET tcp AND TARGET udp AND TARGET wire)
  set(_http_sources ${CMAKE_CURRENT_LIST_DIR}/HttpSniffTests.cpp
                    ${CMAKE_SOURCE_DIR}/decoders/message/MessageLine.cpp)
  find_library(KEST_PCAP_LIBRARY pcap)
  if(KEST_PCAP_LIBRARY)
    list(APPEND _http_sources ${CMAKE_CURRENT_LIST_DIR}/HttpLoopbackTests.cpp)
  endif()
  add_executable(kest_http_tests ${_http_sources})
  target_include_directories(kest_http_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders
                                                     ${CMAKE_SOURCE_DIR}/tests/web)
  target_link_libraries(kest_http_tests PRIVATE kest kest_test_support GTest::gtest_main)
  if(KEST_PCAP_LIBRARY)
    target_link_libraries(kest_http_tests PRIVATE ${KEST_PCAP_LIBRARY})
  endif()
  add_dependencies(kest_http_tests tcp udp wire http)
  get_target_property(_http_tcp_plg tcp KEST_PLUGIN_FILE)
  get_target_property(_http_udp_plg udp KEST_PLUGIN_FILE)
  get_target_property(_http_wire_plg wire KEST_PLUGIN_FILE)
  get_target_property(_http_plg http KEST_PLUGIN_FILE)
  target_compile_definitions(kest_http_tests PRIVATE
    KEST_TEST_TCP_PLG="${_http_tcp_plg}" KEST_TEST_UDP_PLG="${_http_udp_plg}"
    KEST_TEST_WIRE_PLG="${_http_wire_plg}" KEST_TEST_HTTP_PLG="${_http_plg}"
    KEST_TEST_LOOPBACK_PCAP="${CMAKE_SOURCE_DIR}/examples/loopback.pcap")
  gtest_discover_tests(kest_http_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endif()
