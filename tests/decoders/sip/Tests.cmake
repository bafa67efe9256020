# The SIP, RTSP and SSDP decoders' tests, in a program of their own: the
# first-line judgement and the media parsers built in from their source, and
# conversations through the packed plug-ins.
set(_sip_plugins sip rtsp ssdp tcp udp wire)
set(_sip_ready TRUE)
foreach(plugin ${_sip_plugins})
  if(NOT TARGET ${plugin})
    set(_sip_ready FALSE)
  endif()
endforeach()
if(_sip_ready)
  add_executable(kest_sip_tests ${CMAKE_CURRENT_LIST_DIR}/MessagePartsTests.cpp
                                ${CMAKE_CURRENT_LIST_DIR}/MessageConversations.cpp
                                ${CMAKE_SOURCE_DIR}/decoders/message/MessageLine.cpp
                                ${CMAKE_SOURCE_DIR}/decoders/message/Media.cpp
)
  target_include_directories(kest_sip_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders
                                                    ${CMAKE_SOURCE_DIR}/tests/web)
  target_link_libraries(kest_sip_tests PRIVATE kest kest_test_support GTest::gtest_main)
  add_dependencies(kest_sip_tests ${_sip_plugins})
  set(_sip_files "")
  foreach(plugin ${_sip_plugins})
    get_target_property(_plg ${plugin} KEST_PLUGIN_FILE)
    list(APPEND _sip_files "\"${_plg}\"")
  endforeach()
  string(REPLACE ";" "," _sip_files "${_sip_files}")
  target_compile_definitions(kest_sip_tests PRIVATE KEST_TEST_SIP_PLGS=${_sip_files})
  gtest_discover_tests(kest_sip_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endif()
