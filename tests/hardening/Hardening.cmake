# Memory failure swept over a real capture replayed through every decoder
# plug-in of the build's plug-in folder (FaultSweep.cpp). It reads the capture
# with libpcap, so it is a program of its own; its shards are tests of their
# own, for ctest to spread over the cores. scripts/fault_sweep.sh runs it on
# bigger captures.
find_library(KEST_PCAP_LIBRARY pcap)
get_property(_sweep_plugins GLOBAL PROPERTY KEST_PLUGIN_TARGETS)
set(_sweep_decoders "")
foreach(plugin ${_sweep_plugins})
  get_target_property(_plg ${plugin} KEST_PLUGIN_FILE)
  get_filename_component(_plg_dir "${_plg}" DIRECTORY)
  if(_plg_dir STREQUAL KEST_PLUGIN_OUTPUT_DIR)
    list(APPEND _sweep_decoders ${plugin})
  endif()
endforeach()
if(KEST_PCAP_LIBRARY AND TARGET wire AND TARGET tcp AND TARGET udp)
  add_executable(kest_fault_sweep ${CMAKE_CURRENT_LIST_DIR}/FaultSweep.cpp)
  target_link_libraries(kest_fault_sweep PRIVATE kest kest_test_support ${KEST_PCAP_LIBRARY}
                                                 GTest::gtest_main)
  add_dependencies(kest_fault_sweep ${_sweep_decoders})
  target_compile_definitions(kest_fault_sweep PRIVATE
    KEST_SWEEP_PLUGIN_DIR="${KEST_PLUGIN_OUTPUT_DIR}"
    KEST_SWEEP_DEFAULT_CAPTURE="${CMAKE_SOURCE_DIR}/examples/loopback.pcap")
  # A shard forks a child per allocation of the replay (some 2 800 of them);
  # under the sanitizers each fork copies the shadow memory's page tables, and
  # a shard took just over 300 s on a 2-core machine.
  gtest_discover_tests(kest_fault_sweep DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 1200)
endif()
