# The decoders' tests: their classes are built into kest_tests and driven
# in-process, and the packed tcp.plg and udp.plg are loaded from the plug-in
# folder by the whole-road test.
if(TARGET tcp AND TARGET udp AND KEST_DECODER_CLASS_SOURCES)
  target_sources(kest_tests PRIVATE ${KEST_DECODER_CLASS_SOURCES})
  target_include_directories(kest_tests PRIVATE ${KEST_DECODER_INCLUDE_DIR})
  add_dependencies(kest_tests tcp udp)
  get_target_property(_tcp_plg tcp KEST_PLUGIN_FILE)
  get_target_property(_udp_plg udp KEST_PLUGIN_FILE)
  set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/DecoderPluginsTest.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS KEST_TEST_TCP_PLG="${_tcp_plg}" KEST_TEST_UDP_PLG="${_udp_plg}")
endif()
