# kestcap's link headers in front of the whole-packet parser.
kest_fuzz_target(link_header kest_static)
target_sources(link_header_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/tools/kestcap/LinkHeader.cpp
                                        ${CMAKE_SOURCE_DIR}/decoders/wire/WireParser.cpp)
target_include_directories(link_header_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/tools/kestcap
                                                    ${CMAKE_SOURCE_DIR}/decoders)
