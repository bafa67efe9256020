# A real capture (h2c.pcap): nghttpd with curl and nghttp by prior
# knowledge, over IPv4 and IPv6, and curl and nghttp upgrading from HTTP/1.1
# to a small h2c server made on the python3-h2 library, on loopback in a
# private network namespace.
if(TARGET http2 AND TARGET http AND TARGET wire)
  kest_add_capture_test(NAME http2_capture_golden PLUGINS wire tcp udp http http2
                        CAPTURE ${CMAKE_CURRENT_LIST_DIR}/h2c.pcap
                        EXPECTED ${CMAKE_CURRENT_LIST_DIR}/h2c.pcap.jsonl
                        KESTCAP_ARGS --attr http.response.header.server)
endif()
