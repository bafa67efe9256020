# The TLS hello parser and record assembler (decoders/tls), built in.
kest_fuzz_target(tls kest)
target_sources(tls_fuzz PRIVATE ${KEST_TLS_PARSER_SOURCES})
target_include_directories(tls_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
