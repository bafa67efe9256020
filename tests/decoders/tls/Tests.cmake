# The TLS decoder's tests: its plain code built in, and the packed plug-ins
# loaded from the plug-in folder for the runs on the loopback capture (those
# need libpcap).
if(TARGET tls AND TARGET tcp AND TARGET wire)
  set(_tls_dir ${CMAKE_CURRENT_LIST_DIR})
  add_executable(kest_tls_tests ${_tls_dir}/TlsParserTests.cpp ${_tls_dir}/TlsPluginTests.cpp
                                ${KEST_TLS_PARSER_SOURCES})
  target_include_directories(kest_tls_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders)
  target_link_libraries(kest_tls_tests PRIVATE kest kest_test_support GTest::gtest_main)
  add_dependencies(kest_tls_tests tls tcp udp wire)
  foreach(plugin tls tcp udp wire)
    get_target_property(_plg_${plugin} ${plugin} KEST_PLUGIN_FILE)
  endforeach()
  target_compile_definitions(kest_tls_tests PRIVATE
    KEST_TEST_TLS_PLG="${_plg_tls}" KEST_TEST_TCP_PLG="${_plg_tcp}"
    KEST_TEST_UDP_PLG="${_plg_udp}" KEST_TEST_WIRE_PLG="${_plg_wire}"
    KEST_TEST_LOOPBACK_PCAP="${CMAKE_SOURCE_DIR}/examples/loopback.pcap")
  find_library(KEST_PCAP_LIBRARY pcap)
  if(KEST_PCAP_LIBRARY)
    target_link_libraries(kest_tls_tests PRIVATE ${KEST_PCAP_LIBRARY})
    target_compile_definitions(kest_tls_tests PRIVATE KEST_TEST_HAVE_PCAP=1)
  endif()
  gtest_discover_tests(kest_tls_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()
