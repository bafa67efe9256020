# Keyed ESP (ike_esp.pcap): strongSwan's IKEv2 IKE_SA_INIT between two
# namespaces, with ESP packets (two SPIs, one each way) added by hand after
# it, one before it and one towards a third address. The ESP flows between
# the exchange's addresses after it are named IKE; the other two are not.
if(TARGET ike AND TARGET wire)
  kest_add_capture_test(NAME ike_keyed_esp_golden PLUGINS wire tcp udp ip ike
                        CAPTURE ${CMAKE_CURRENT_LIST_DIR}/ike_esp.pcap
                        EXPECTED ${CMAKE_CURRENT_LIST_DIR}/ike_esp.pcap.jsonl
                        KESTCAP_ARGS --attr ike.version --attr ike.exchange)
endif()
