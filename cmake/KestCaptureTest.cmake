# cmake -DSETTINGS=<test>.cmake -P KestCaptureTest.cmake
#
# The test that kest_add_capture_test (KestPlugin.cmake) adds: a fresh plug-in
# folder, kestcap --json over the capture, and its output compared with the
# expected file.
cmake_minimum_required(VERSION 3.20)
include("${SETTINGS}")

if(NOT KESTCAP)
  message(FATAL_ERROR "kestcap was not built (kest without libpcap): test skipped")
endif()
if(NOT EXISTS "${CAPTURE}")
  message(FATAL_ERROR "no capture ${CAPTURE}")
endif()

set(plugins "${WORK}/plugins")
file(REMOVE_RECURSE "${plugins}")
file(MAKE_DIRECTORY "${plugins}")
foreach(file IN LISTS PLUGIN_FILES)
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "no plug-in file ${file} (is it built?)")
  endif()
  file(COPY "${file}" DESTINATION "${plugins}")
endforeach()

set(actual "${WORK}.jsonl")
execute_process(COMMAND "${KESTCAP}" --plugins "${plugins}" --json ${KESTCAP_ARGS} "${CAPTURE}"
                OUTPUT_FILE "${actual}" ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "kestcap failed (${status}):\n${errors}")
endif()
if(errors)
  message(STATUS "kestcap said:\n${errors}")
endif()

if(NOT EXISTS "${EXPECTED}")
  message(FATAL_ERROR "no expected output ${EXPECTED}: kestcap's is in ${actual}; "
                      "review it and copy it there")
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" -E compare_files "${EXPECTED}" "${actual}"
                RESULT_VARIABLE differs)
if(differs)
  # Straight to the output: a message would wrap the long lines.
  find_program(DIFF diff)
  if(DIFF)
    execute_process(COMMAND "${DIFF}" -u "${EXPECTED}" "${actual}")
  else()
    execute_process(COMMAND "${CMAKE_COMMAND}" -E cat "${actual}")
  endif()
  message(FATAL_ERROR "kestcap's output (${actual}) differs from ${EXPECTED}")
endif()
message(STATUS "kestcap's output is as expected")
