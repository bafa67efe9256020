# The HTTP/2 decoder's HPACK reader (decoders/http2), built in.
kest_fuzz_target(hpack kest)
target_sources(hpack_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders/http2/Hpack.cpp)
target_include_directories(hpack_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
