# The certificate reader and the leaf's stream walk (decoders/tls), built in.
kest_fuzz_target(certificate kest)
target_sources(certificate_fuzz PRIVATE ${KEST_TLS_PARSER_SOURCES})
target_include_directories(certificate_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
