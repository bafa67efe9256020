# The conversation tables of every decoder (tests/decoders/*/*.conv), run by
# one program over every packed decoder of the project in one folder.
get_property(_all_plugins GLOBAL PROPERTY KEST_PLUGIN_TARGETS)
set(_conv_files "")
set(_conv_targets "")
foreach(_plugin IN LISTS _all_plugins)
  get_target_property(_dir ${_plugin} SOURCE_DIR)
  string(FIND "${_dir}/" "${CMAKE_SOURCE_DIR}/decoders/" _at)
  if(_at EQUAL 0)
    get_target_property(_plg ${_plugin} KEST_PLUGIN_FILE)
    list(APPEND _conv_files "\"${_plg}\"")
    list(APPEND _conv_targets ${_plugin})
  endif()
endforeach()
# kestcap over the bundled capture with every decoder, against its reviewed
# output.
if(_conv_targets)
  kest_add_capture_test(NAME loopback_golden PLUGINS ${_conv_targets}
                        CAPTURE ${CMAKE_SOURCE_DIR}/examples/loopback.pcap
                        EXPECTED ${CMAKE_SOURCE_DIR}/tests/golden/loopback.pcap.jsonl
                        KESTCAP_ARGS --attr tls.alpn --attr tls.version
                                     --attr tls.client_fingerprint --attr dns.qtype
                                     --attr dns.answers --attr http.response.header.server)
endif()

# The kit's own test decoder (toy.conv), packed beside them.
if(_conv_targets)
  kest_add_plugin(NAME toy SOURCES ${CMAKE_CURRENT_LIST_DIR}/../fixtures/toy_decoder.cpp
                  OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/decoders/toy)
  get_target_property(_plg toy KEST_PLUGIN_FILE)
  list(APPEND _conv_files "\"${_plg}\"")
  list(APPEND _conv_targets toy)
endif()
if(_conv_targets)
  add_executable(kest_conversation_tests ${CMAKE_CURRENT_LIST_DIR}/Conversations.cpp)
  target_include_directories(kest_conversation_tests PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kest_conversation_tests PRIVATE kest kest_test_support GTest::gtest_main)
  add_dependencies(kest_conversation_tests ${_conv_targets})
  string(REPLACE ";" "," _conv_files "${_conv_files}")
  target_compile_definitions(kest_conversation_tests PRIVATE
    KEST_TEST_ALL_PLGS=${_conv_files} KEST_TEST_CONV_DIR="${CMAKE_SOURCE_DIR}/tests/decoders")
  gtest_discover_tests(kest_conversation_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()
