# The packed rule module: its own folder, so an instance opened there loads
# nothing else.
kest_add_plugin(NAME rule_module SOURCES ${CMAKE_CURRENT_LIST_DIR}/fixtures/rule_module_plugin.cpp
                OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/rules/plugins LIBRARIES ${CMAKE_DL_LIBS})
add_dependencies(kest_tests rule_module)
set_target_properties(kest_tests PROPERTIES ENABLE_EXPORTS ON)
set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/CustomRulePluginTest.cpp APPEND PROPERTY
             COMPILE_DEFINITIONS KEST_TEST_RULE_PLUGIN_DIR="${CMAKE_BINARY_DIR}/tests/rules/plugins")
