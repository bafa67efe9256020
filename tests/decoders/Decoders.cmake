# The decoders' tests: their classes are built into kest_tests and driven
# in-process, and the packed tcp.plg and udp.plg are loaded from the plug-in
# folder by the whole-road test.
if(TARGET tcp AND TARGET udp AND KEST_DECODER_CLASS_SOURCES)
  target_sources(kest_tests PRIVATE ${KEST_DECODER_CLASS_SOURCES})
  target_include_directories(kest_tests PRIVATE ${KEST_DECODER_INCLUDE_DIR})
  add_dependencies(kest_tests tcp udp)
  get_target_property(_tcp_plg tcp KEST_PLUGIN_FILE)
  get_target_property(_udp_plg udp KEST_PLUGIN_FILE)

  # The README's plug-in example, built from the text the README shows, into
  # a folder of its own.
  set(_saved_output_dir ${KEST_PLUGIN_OUTPUT_DIR})
  set(KEST_PLUGIN_OUTPUT_DIR ${CMAKE_CURRENT_BINARY_DIR}/readme-plugins)
  add_subdirectory(${CMAKE_CURRENT_LIST_DIR}/hello ${CMAKE_CURRENT_BINARY_DIR}/readme-hello)
  set(KEST_PLUGIN_OUTPUT_DIR ${_saved_output_dir})
  get_target_property(_hello_plg hello KEST_PLUGIN_FILE)
  add_dependencies(kest_tests hello)
  add_test(NAME readme_plugin_example
           COMMAND ${CMAKE_COMMAND} -DREADME=${CMAKE_SOURCE_DIR}/README.md
                   -DDIR=${CMAKE_CURRENT_LIST_DIR}/hello -P ${CMAKE_CURRENT_LIST_DIR}/hello/CheckReadme.cmake)

  set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/DecoderPluginsTest.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS KEST_TEST_TCP_PLG="${_tcp_plg}" KEST_TEST_UDP_PLG="${_udp_plg}"
               KEST_TEST_HELLO_PLG="${_hello_plg}")
endif()

# A packed plug-in that attaches an inspector through the TCP decoder's rule
# store; the test puts it in one folder with the decoders.
kest_add_plugin(NAME probe SOURCES ${CMAKE_CURRENT_LIST_DIR}/fixtures/probe_plugin.cpp
                OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/decoders/probe LIBRARIES ${CMAKE_DL_LIBS})
if(TARGET tcp AND TARGET udp)
  add_dependencies(kest_tests probe)
  get_target_property(_probe_plg probe KEST_PLUGIN_FILE)
  set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/ProbePluginTest.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS KEST_TEST_TCP_PLG="${_tcp_plg}" KEST_TEST_UDP_PLG="${_udp_plg}"
               KEST_TEST_PROBE_PLG="${_probe_plg}")
endif()

if(TARGET wire)
  add_dependencies(kest_tests wire)
  add_dependencies(kest_tests ip)
  get_target_property(_wire_plg wire KEST_PLUGIN_FILE)
  get_target_property(_ip_plg ip KEST_PLUGIN_FILE)
  set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/wire/WirePacketsTest.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS KEST_TEST_TCP_PLG="${_tcp_plg}" KEST_TEST_UDP_PLG="${_udp_plg}"
               KEST_TEST_WIRE_PLG="${_wire_plg}" KEST_TEST_PROBE_PLG="${_probe_plg}"
               KEST_TEST_IP_PLG="${_ip_plg}"
               KEST_TEST_WIRE_PACKETS="${CMAKE_CURRENT_LIST_DIR}/wire/packets.txt")
endif()

set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/transport/TcpStreamTest.cpp APPEND PROPERTY
             COMPILE_DEFINITIONS KEST_TEST_TCP_SEGMENTS="${CMAKE_CURRENT_LIST_DIR}/transport/segments.txt")

# The tests on the shared captures need libpcap: a program of their own, so
# that the others run without it.
find_library(KEST_PCAP_LIBRARY pcap)
if(KEST_PCAP_LIBRARY AND TARGET wire)
  add_executable(kest_capture_tests ${CMAKE_CURRENT_LIST_DIR}/captures/Captures.cpp
                                    ${KEST_DECODER_CLASS_SOURCES})
  target_include_directories(kest_capture_tests PRIVATE ${CMAKE_SOURCE_DIR} ${KEST_DECODER_INCLUDE_DIR})
  target_link_libraries(kest_capture_tests PRIVATE kest kest_test_support ${KEST_PCAP_LIBRARY}
                                                   GTest::gtest_main)
  set_target_properties(kest_capture_tests PROPERTIES ENABLE_EXPORTS ON)
  add_dependencies(kest_capture_tests tcp udp wire probe)
  target_compile_definitions(kest_capture_tests PRIVATE
    KEST_TEST_PCAP_DIR="${CMAKE_SOURCE_DIR}/../shared/pcaps" KEST_TEST_TCP_PLG="${_tcp_plg}"
    KEST_TEST_UDP_PLG="${_udp_plg}" KEST_TEST_WIRE_PLG="${_wire_plg}"
    KEST_TEST_PROBE_PLG="${_probe_plg}")
  gtest_discover_tests(kest_capture_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()

# The application decoders' tests: tests/decoders/<decoder>/Tests.cmake each.
file(GLOB _decoder_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*/Tests.cmake)
foreach(file ${_decoder_tests})
  include(${file})
endforeach()
