# kestcap end to end, when it was built (it needs libpcap) and jq is there to
# read its JSON.
find_program(KEST_JQ jq)
if(TARGET kestcap AND KEST_JQ)
  add_test(NAME kestcap_end_to_end
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/kestcap_test.sh $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins ${CMAKE_SOURCE_DIR}/examples/loopback.pcap
                   ${CMAKE_SOURCE_DIR}/../shared/pcaps)
  set_tests_properties(kestcap_end_to_end PROPERTIES TIMEOUT 300)
endif()

# kestcap's output on the golden selection of shared captures (skipped where
# they are absent).
if(TARGET kestcap)
  add_test(NAME kestcap_golden
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/golden_test.sh $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins ${CMAKE_SOURCE_DIR}/../shared/pcaps
                   ${CMAKE_SOURCE_DIR}/tests/golden)
  set_tests_properties(kestcap_golden PROPERTIES TIMEOUT 300)
endif()

# Changes made by a control thread while four threads classify: they reach
# every worker at the packet they name (and, in the ThreadSanitizer build,
# cleanly).
if(TARGET kestcap AND KEST_JQ)
  add_test(NAME kestcap_ConcurrentChanges
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/changes_test.sh $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins)
  set_tests_properties(kestcap_ConcurrentChanges PROPERTIES TIMEOUT 300)
endif()
