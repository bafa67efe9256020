# A real exchange (netbios.pcap): Samba's nmbd and smbd and their clients
# across two private network namespaces.
if(TARGET netbios AND TARGET wire)
  kest_add_capture_test(NAME netbios_capture_golden PLUGINS wire tcp udp netbios
                        CAPTURE ${CMAKE_CURRENT_LIST_DIR}/netbios.pcap
                        EXPECTED ${CMAKE_CURRENT_LIST_DIR}/netbios.pcap.jsonl
                        KESTCAP_ARGS --attr netbios.name --attr netbios.type)
endif()
