# The BitTorrent decoder's bencode reader, a header of its own.
if(TARGET bittorrent)
  kest_fuzz_target(bencode)
  target_include_directories(bencode_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders
                                                  ${CMAKE_SOURCE_DIR}/include)
endif()
