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
  set_tests_properties(kestcap_golden PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
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

# kestcap over hostile traffic, and over many more flows than the connection
# limits hold, both generated at test time. The bounds on the peak resident
# size leave a few times what each build needs (a sanitizer build's shadow
# memory included), and the flows' bound stays well below what 100 000 flows
# take when the limits do not push connections out (over 100 MB plain).
find_program(KEST_PYTHON3 python3)
if(TARGET kestcap AND KEST_JQ AND KEST_PYTHON3 AND EXISTS /usr/bin/time)
  if(KEST_SANITIZE)
    set(_hostile_max_kb 250000)
    set(_flows_max_kb 120000)
  else()
    set(_hostile_max_kb 64000)
    set(_flows_max_kb 32000)
  endif()
  add_test(NAME kestcap_hostile
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/hostile_test.sh hostile $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins ${CMAKE_SOURCE_DIR}/scripts/hostile_pcap.py
                   ${CMAKE_CURRENT_BINARY_DIR}/hostile ${_hostile_max_kb})
  set_tests_properties(kestcap_hostile PROPERTIES TIMEOUT 120)
  add_test(NAME kestcap_flows_bounded
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/hostile_test.sh flows $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins ${CMAKE_SOURCE_DIR}/scripts/flows_pcap.py
                   ${CMAKE_CURRENT_BINARY_DIR}/flows ${_flows_max_kb} 100000 1000)
  set_tests_properties(kestcap_flows_bounded PROPERTIES TIMEOUT 120)
endif()

# kest's HTTP host and URI, TLS server names (QUIC's too) and every DNS
# question against tshark's, on the committed captures; the whole run over
# the shared captures is scripts/attr_check.py alone. Skipped without tshark.
if(TARGET kestcap AND KEST_PYTHON3)
  add_test(NAME kestcap_attributes_tshark
           COMMAND ${KEST_PYTHON3} ${CMAKE_SOURCE_DIR}/scripts/attr_check.py --min 100
                   --kestcap $<TARGET_FILE:kestcap> --plugins ${CMAKE_BINARY_DIR}/plugins
                   ${CMAKE_SOURCE_DIR}/examples/loopback.pcap
                   ${CMAKE_SOURCE_DIR}/tests/golden/captures/mdns-questions.pcap
                   ${CMAKE_SOURCE_DIR}/tests/golden/captures/quic-vendor.pcap)
  set_tests_properties(kestcap_attributes_tshark PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77)
endif()
