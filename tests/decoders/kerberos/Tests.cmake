# A real exchange (kerberos.pcap): MIT Kerberos's KDC and clients on
# loopback in a private network namespace.
if(TARGET kerberos AND TARGET wire)
  kest_add_capture_test(NAME kerberos_capture_golden PLUGINS wire tcp udp kerberos
                        CAPTURE ${CMAKE_CURRENT_LIST_DIR}/kerberos.pcap
                        EXPECTED ${CMAKE_CURRENT_LIST_DIR}/kerberos.pcap.jsonl
                        KESTCAP_ARGS --attr kerberos.msg_type --attr kerberos.realm
                                     --attr kerberos.cname --attr kerberos.sname)
endif()
