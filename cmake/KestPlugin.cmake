# kest_add_plugin(NAME <name> SOURCES <src>... [OUTPUT_DIRECTORY <dir>] [LIBRARIES <lib>...])
#
# Builds a plug-in as a shared object against the kest SDK and packs it into
# <dir>/<name>.plg, ready for kest_open. <dir> defaults to KEST_PLUGIN_OUTPUT_DIR,
# which defaults to <build>/plugins. The shared object itself is the target
# <name>_so; the .plg file is made by the target <name>, which is part of ALL.
#
# Plug-ins are built like the library: no exceptions, no RTTI, hidden symbols
# (only the "query" entry point is exported, see KEST_PLUGIN_QUERY).
#
# The same file serves this tree and projects built against an installed kest
# (find_package(kest)): KEST_PLUGIN_LIBRARY names the library target that
# plug-ins link and KEST_PLUGIN_PACKER the packing tool's target. Both default
# to this tree's targets; the installed package sets them to kest::kest and
# kest::plg before it includes this file.
if(NOT DEFINED KEST_PLUGIN_OUTPUT_DIR)
  set(KEST_PLUGIN_OUTPUT_DIR "${CMAKE_BINARY_DIR}/plugins")
endif()
if(NOT DEFINED KEST_PLUGIN_LIBRARY)
  set(KEST_PLUGIN_LIBRARY kest)
endif()
if(NOT DEFINED KEST_PLUGIN_PACKER)
  set(KEST_PLUGIN_PACKER kest-plg)
endif()

function(kest_add_plugin)
  cmake_parse_arguments(PLG "" "NAME;OUTPUT_DIRECTORY" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT PLG_NAME OR NOT PLG_SOURCES)
    message(FATAL_ERROR "kest_add_plugin: NAME and SOURCES are required")
  endif()
  if(NOT PLG_OUTPUT_DIRECTORY)
    set(PLG_OUTPUT_DIRECTORY "${KEST_PLUGIN_OUTPUT_DIR}")
  endif()

  set(so_target ${PLG_NAME}_so)
  add_library(${so_target} MODULE ${PLG_SOURCES})
  target_link_libraries(${so_target} PRIVATE ${KEST_PLUGIN_LIBRARY} ${PLG_LIBRARIES})
  # The SDK headers are C++20; a project of its own may ask for less.
  target_compile_features(${so_target} PRIVATE cxx_std_20)
  target_compile_options(${so_target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden>
    -fvisibility=hidden)
  if(NOT DEFINED KEST_UNDEFINED_CHECK)
    set(KEST_UNDEFINED_CHECK -Wl,--no-undefined)
  endif()
  if(KEST_UNDEFINED_CHECK)
    target_link_options(${so_target} PRIVATE ${KEST_UNDEFINED_CHECK})
  endif()
  set_target_properties(${so_target} PROPERTIES PREFIX "" OUTPUT_NAME ${PLG_NAME})

  set(plg_file "${PLG_OUTPUT_DIRECTORY}/${PLG_NAME}.plg")
  add_custom_command(
    OUTPUT "${plg_file}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${PLG_OUTPUT_DIRECTORY}"
    COMMAND ${KEST_PLUGIN_PACKER} pack $<TARGET_FILE:${so_target}> "${plg_file}"
    DEPENDS ${so_target} ${KEST_PLUGIN_PACKER}
    COMMENT "Packing plug-in ${PLG_NAME}.plg"
    VERBATIM)
  add_custom_target(${PLG_NAME} ALL DEPENDS "${plg_file}")
  set_target_properties(${PLG_NAME} PROPERTIES KEST_PLUGIN_FILE "${plg_file}")
  # Every plug-in of the project, for the install rules to pick from.
  set_property(GLOBAL APPEND PROPERTY KEST_PLUGIN_TARGETS ${PLG_NAME})
endfunction()
