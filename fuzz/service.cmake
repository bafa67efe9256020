# The service catalogue's reader and matcher.
if(TARGET kest_service_catalogue)
  kest_fuzz_target(service_catalogue kest_service_catalogue)
  target_include_directories(service_catalogue_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/tools/host)
endif()
