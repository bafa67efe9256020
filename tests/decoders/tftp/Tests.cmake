# A real exchange (tftp.pcap): tftp-hpa's client reading and writing a file
# on in.tftpd, on loopback in a private network namespace. The transfers
# come from the server's own ports; the requests announce them.
if(TARGET tftp AND TARGET wire)
  kest_add_capture_test(NAME tftp_transfers_golden PLUGINS wire tcp udp tftp
                        CAPTURE ${CMAKE_CURRENT_LIST_DIR}/tftp.pcap
                        EXPECTED ${CMAKE_CURRENT_LIST_DIR}/tftp.pcap.jsonl
                        KESTCAP_ARGS --attr tftp.op --attr tftp.filename --attr tftp.mode)
endif()
