# The HTTP decoder's first-line judgement (decoders/http), built in.
kest_fuzz_target(http kest)
target_sources(http_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders/http/HttpSniff.cpp)
target_include_directories(http_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
