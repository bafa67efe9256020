# The HTTP decoder's first-line judgement (the HTTP dialect of
# decoders/message), built in.
kest_fuzz_target(http kest)
target_sources(http_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders/message/MessageLine.cpp)
target_include_directories(http_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
