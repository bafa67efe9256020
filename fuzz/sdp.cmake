# The SIP and RTSP decoders' media readers (decoders/message): SDP bodies and
# Transport headers, built in.
kest_fuzz_target(sdp kest)
target_sources(sdp_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders/message/Media.cpp
)
target_include_directories(sdp_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
