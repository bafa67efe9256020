# The QUIC decoder's packet, frame and crypto code (decoders/quic), with the
# TLS hello parser it hands ClientHellos to.
if(TARGET kest_quic_packet)
  kest_fuzz_target(quic kest_quic_packet)
endif()
