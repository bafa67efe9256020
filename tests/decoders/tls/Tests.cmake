# The TLS decoder's plain code, built in: SHA-256, the hello parser, the
# record assembler and the certificate reader. What the packed decoder names
# and reports is in tls.conv, certificates.conv and the goldens.
add_executable(kest_tls_tests ${CMAKE_CURRENT_LIST_DIR}/TlsParserTests.cpp
                              ${CMAKE_CURRENT_LIST_DIR}/CertificateTests.cpp
                              ${KEST_TLS_PARSER_SOURCES})
target_include_directories(kest_tls_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/decoders)
target_link_libraries(kest_tls_tests PRIVATE kest kest_test_support GTest::gtest_main)
gtest_discover_tests(kest_tls_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
target_compile_definitions(kest_tls_tests PRIVATE KEST_TEST_TLS_HELLOS="${CMAKE_CURRENT_LIST_DIR}/hellos.txt"
  KEST_TEST_TLS_CERTIFICATES="${CMAKE_CURRENT_LIST_DIR}/certificates.txt"
  KEST_TEST_CERTIFICATE_SEEDS="${CMAKE_SOURCE_DIR}/fuzz/corpus/certificate")
