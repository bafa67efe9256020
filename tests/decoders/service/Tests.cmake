# The service catalogue's matcher and the store of names learned from DNS
# answers, alone; the plug-in's behaviour on connections is in service.conv.
if(TARGET kest_service_catalogue)
  add_executable(kest_service_tests ${CMAKE_CURRENT_LIST_DIR}/ServiceCatalogueTests.cpp)
  target_include_directories(kest_service_tests PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kest_service_tests PRIVATE kest kest_test_support kest_service_catalogue
                                                   kest_dns_message
                                                   GTest::gtest_main)
  target_compile_definitions(kest_service_tests PRIVATE
    KEST_TEST_SERVICE_CASES="${CMAKE_CURRENT_LIST_DIR}/catalogue_cases.txt"
    KEST_TEST_SERVICE_CATALOGUE="${CMAKE_SOURCE_DIR}/decoders/service/services.txt")
  if(TARGET service AND TARGET dns AND TARGET tcp AND TARGET udp AND TARGET wire)
    add_dependencies(kest_service_tests service dns tcp udp wire)
    foreach(plugin service dns tcp udp wire)
      get_target_property(_plg ${plugin} KEST_PLUGIN_FILE)
      string(TOUPPER ${plugin} _upper)
      target_compile_definitions(kest_service_tests PRIVATE KEST_TEST_${_upper}_PLG="${_plg}")
    endforeach()
  endif()
  gtest_discover_tests(kest_service_tests DISCOVERY_TIMEOUT 60)
endif()
