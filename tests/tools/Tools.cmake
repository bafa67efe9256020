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

# The README's examples, as written.
if(TARGET kestcap AND KEST_JQ AND TARGET kest_host)
  if(KEST_SANITIZE)
    set(_readme_cflags -fsanitize=${KEST_SANITIZE})
  endif()
  add_test(NAME readme_examples
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/readme_test.sh ${CMAKE_SOURCE_DIR}
                   ${CMAKE_BINARY_DIR} $<TARGET_FILE:kestcap> $<TARGET_FILE:kest_host>
                   "${_readme_cflags}")
  set_tests_properties(readme_examples PROPERTIES TIMEOUT 600)
endif()

# kestcap --ipfix into nfdump's collector on loopback: every connection of
# the JSON lines stored with its end points, packets each way and times, and
# the application names in tshark's decoding of the messages (skipped
# without the collector; the names only as root).
if(TARGET kestcap)
  add_test(NAME kestcap_ipfix
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/ipfix_test.sh $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins ${CMAKE_CURRENT_BINARY_DIR}/ipfix
                   ${CMAKE_SOURCE_DIR}/scripts/flows_pcap.py
                   ${CMAKE_SOURCE_DIR}/tests/golden/captures/wlan-radiotap-http.pcap
                   ${CMAKE_SOURCE_DIR}/../shared/pcaps/nflog-http.pcap
                   ${CMAKE_SOURCE_DIR}/../shared/pcaps/1kxun.pcap
                   ${CMAKE_SOURCE_DIR}/../shared/pcaps/http_ipv6.pcap)
  set_tests_properties(kestcap_ipfix PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77)
endif()

# kestcap as a service: its sandbox against a decoder that makes a
# forbidden call, its privileges while it runs (root only), its unit, its
# logrotate snippet and its manual page.
if(TARGET kestcap AND TARGET tcp AND TARGET udp AND TARGET wire)
  kest_add_plugin(NAME forbidden SOURCES ${CMAKE_CURRENT_LIST_DIR}/sandbox/forbidden_plugin.cpp
                  OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/tools/sandbox)
  add_dependencies(kest_tests forbidden)
  set(_sensor sh ${CMAKE_CURRENT_LIST_DIR}/sensor_test.sh)
  get_target_property(_forbidden_plg forbidden KEST_PLUGIN_FILE)
  add_test(NAME kestcap_sandbox
           COMMAND ${_sensor} sandbox $<TARGET_FILE:kestcap> ${CMAKE_BINARY_DIR}/plugins
                   ${_forbidden_plg} ${CMAKE_CURRENT_LIST_DIR}/data/forbidden_call.pcap
                   "${KEST_SANITIZE}")
  add_test(NAME kestcap_privileges
           COMMAND ${_sensor} privileges $<TARGET_FILE:kestcap> ${CMAKE_BINARY_DIR}/plugins
                   "${KEST_SANITIZE}")
  add_test(NAME kestcap_service_files
           COMMAND ${_sensor} service ${CMAKE_BINARY_DIR}/tools/kestcap/kestcap@.service
                   ${CMAKE_SOURCE_DIR}/tools/kestcap/service/kestcap.logrotate
                   $<TARGET_FILE:kestcap>)
  set_tests_properties(kestcap_sandbox kestcap_privileges kestcap_service_files
                       PROPERTIES TIMEOUT 60 SKIP_RETURN_CODE 77)
  if(TARGET kestcap_man)
    add_test(NAME kestcap_manual
             COMMAND ${_sensor} manual ${CMAKE_BINARY_DIR}/tools/kestcap/kestcap.1
                     $<TARGET_FILE:kestcap>)
    set_tests_properties(kestcap_manual PROPERTIES SKIP_RETURN_CODE 77)
  endif()
endif()

# Live capture on a veth pair in a private network namespace: one and two
# AF_PACKET workers in a fan-out group against the file (root only; skipped
# otherwise, or without tcpreplay or the shared captures).
if(TARGET kestcap)
  add_test(NAME kestcap_live_fanout
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/live_test.sh $<TARGET_FILE:kestcap>
                   ${CMAKE_BINARY_DIR}/plugins ${CMAKE_SOURCE_DIR}/../shared/pcaps)
  set_tests_properties(kestcap_live_fanout PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
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
  # Every shared capture: at least 99.5 % of the values agree, and each
  # difference has its reason in docs/accuracy-notes.tsv.
  add_test(NAME kestcap_attributes_tshark_shared
           COMMAND ${KEST_PYTHON3} ${CMAKE_SOURCE_DIR}/scripts/attr_check.py --min 99.5
                   --kestcap $<TARGET_FILE:kestcap> --plugins ${CMAKE_BINARY_DIR}/plugins
                   ${CMAKE_SOURCE_DIR}/../shared/pcaps)
  set_tests_properties(kestcap_attributes_tshark_shared PROPERTIES TIMEOUT 900
                                                                   SKIP_RETURN_CODE 77)
endif()
