# A packed plug-in built on WebDpi; its test puts it in one folder with the
# decoders.
kest_add_plugin(NAME chat SOURCES ${CMAKE_CURRENT_LIST_DIR}/fixtures/chat_plugin.cpp
                OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/web/chat)
if(TARGET tcp AND TARGET udp)
  add_dependencies(kest_tests chat)
  get_target_property(_chat_plg chat KEST_PLUGIN_FILE)
  get_target_property(_tcp_plg tcp KEST_PLUGIN_FILE)
  get_target_property(_udp_plg udp KEST_PLUGIN_FILE)
  set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/ChatPluginTest.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS KEST_TEST_TCP_PLG="${_tcp_plg}" KEST_TEST_UDP_PLG="${_udp_plg}"
               KEST_TEST_CHAT_PLG="${_chat_plg}")
endif()
