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
# kest_add_capture_test(NAME <test> PLUGINS <plugin>... CAPTURE <file.pcap>
#                       EXPECTED <file.jsonl> [KESTCAP_ARGS <arg>...])
#
# A CTest test that runs kestcap over a capture with the plug-ins <plugin>...
# (targets of kest_add_plugin, or .plg files) beside the transport decoders
# tcp, udp and wire, and compares its --json output, one line per connection,
# with the EXPECTED file; on a mismatch it fails and shows a diff. KESTCAP_ARGS
# go before the capture: kestcap writes only the attributes of the bundled
# decoders unless asked, so name yours with "--attr <name>". Relative paths are
# read from the calling folder. The plug-in folder is made afresh at each run
# in <build>/kest_capture_tests/<test>/plugins. When the expected file does not
# exist yet, the test fails and leaves kestcap's output beside that folder
# (<test>.jsonl) to be reviewed and copied in: the expected file is a reviewed
# record of what the decoder says, never written by the test. Without kestcap
# (kest built without libpcap) the test is reported as skipped.
#
# kestcap is KEST_KESTCAP (the target kestcap in this tree, kest::kestcap from
# the installed package) and the transports are KEST_TRANSPORT_PLUGINS (this
# tree's tcp, udp and wire targets, or the installed tcp.plg, udp.plg and
# wire.plg).
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
if(NOT DEFINED KEST_KESTCAP)
  set(KEST_KESTCAP kestcap)
endif()
set(_KEST_CAPTURE_TEST_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/KestCaptureTest.cmake")

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

function(kest_add_capture_test)
  cmake_parse_arguments(CT "" "NAME;CAPTURE;EXPECTED" "PLUGINS;KESTCAP_ARGS" ${ARGN})
  if(NOT CT_NAME OR NOT CT_PLUGINS OR NOT CT_CAPTURE OR NOT CT_EXPECTED)
    message(FATAL_ERROR "kest_add_capture_test: NAME, PLUGINS, CAPTURE and EXPECTED are required")
  endif()
  get_filename_component(capture "${CT_CAPTURE}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
  get_filename_component(expected "${CT_EXPECTED}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
  set(transports "${KEST_TRANSPORT_PLUGINS}")
  if(NOT DEFINED KEST_TRANSPORT_PLUGINS)
    set(transports tcp udp wire)
  endif()
  # Targets stand for their .plg files, resolved when the build is generated.
  set(files "")
  foreach(plugin IN LISTS transports CT_PLUGINS)
    if(TARGET ${plugin})
      list(APPEND files "$<TARGET_PROPERTY:${plugin},KEST_PLUGIN_FILE>")
    else()
      get_filename_component(plugin "${plugin}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
      list(APPEND files "${plugin}")
    endif()
  endforeach()
  set(kestcap "")
  if(TARGET ${KEST_KESTCAP})
    set(kestcap "$<TARGET_FILE:${KEST_KESTCAP}>")
  endif()
  # The test's settings as a script of its own: lists and arguments keep
  # their spaces and semicolons.
  set(work "${CMAKE_BINARY_DIR}/kest_capture_tests/${CT_NAME}")
  file(GENERATE OUTPUT "${work}.cmake" CONTENT "set(KESTCAP [==[${kestcap}]==])
set(PLUGIN_FILES [==[${files}]==])
set(KESTCAP_ARGS [==[${CT_KESTCAP_ARGS}]==])
set(CAPTURE [==[${capture}]==])
set(EXPECTED [==[${expected}]==])
set(WORK [==[${work}]==])
")
  add_test(NAME ${CT_NAME} COMMAND ${CMAKE_COMMAND} -DSETTINGS=${work}.cmake
                                   -P ${_KEST_CAPTURE_TEST_SCRIPT})
  set_tests_properties(${CT_NAME} PROPERTIES SKIP_REGULAR_EXPRESSION "kestcap was not built")
endfunction()
