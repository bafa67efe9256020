# cmake -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=... -DGENERATOR=...
#       -DBUILD_TYPE=... -DC_COMPILER=... -DCXX_COMPILER=... -DCOMPILER_ID=...
#       -DSANITIZE=... -DPKG_CONFIG=... -DCTEST=... -DTEMPLATE_DIR=...
#       [-DKESTCAP_DIR=... -DKESTCAP_CAPTURE=...] -P RunInstallTest.cmake
#
# Everything happens under WORK_DIR, emptied first, so that nothing from an
# earlier run can stand in for what this install provides.
cmake_minimum_required(VERSION 3.20)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    # The end of a long log (an install's file list) is what tells why.
    string(LENGTH "${out}" length)
    if(length GREATER 4000)
      math(EXPR from "${length} - 4000")
      string(SUBSTRING "${out}" ${from} -1 out)
    endif()
    message(FATAL_ERROR "${what} failed (${status}):\n${out}")
  endif()
  message(STATUS "${what}: ok")
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
set(consumer_build ${WORK_DIR}/consumer-build)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# A sanitized library needs sanitized programs around it: the consumer is
# built with the same sanitizers. Clang's C driver leaves out the C++ part of
# the sanitizer run-time, and its shared objects take sanitizer symbols from
# the program, so plug-ins may not insist on resolving everything.
set(cflags "")
set(ldflags "")
set(extra_args "")
if(SANITIZE)
  set(cflags -fsanitize=${SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  set(ldflags -fsanitize=${SANITIZE})
  if(COMPILER_ID MATCHES "Clang")
    list(APPEND ldflags -fsanitize-link-c++-runtime)
    list(APPEND extra_args -DKEST_UNDEFINED_CHECK=)
  endif()
endif()
list(JOIN cflags " " cflags_string)
list(JOIN ldflags " " ldflags_string)

set(configure_args -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_C_FLAGS=${cflags_string}" "-DCMAKE_CXX_FLAGS=${cflags_string}"
    "-DCMAKE_EXE_LINKER_FLAGS=${ldflags_string}" "-DCMAKE_MODULE_LINKER_FLAGS=${ldflags_string}"
    ${extra_args})
run("configure consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${consumer_build} ${configure_args})

# The package must come from the fresh prefix and nowhere else.
file(STRINGS ${consumer_build}/CMakeCache.txt kest_dir REGEX "^kest_DIR:")
string(REGEX REPLACE "^[^=]*=" "" kest_dir "${kest_dir}")
file(REAL_PATH "${kest_dir}" kest_dir)
file(REAL_PATH "${prefix}" real_prefix)
string(FIND "${kest_dir}" "${real_prefix}/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "kest was found in ${kest_dir}, not under ${prefix}")
endif()

run("build consumer" ${CMAKE_COMMAND} --build ${consumer_build})
run("consumer host" ${consumer_build}/consumer_host)
message(STATUS "${run_output}")

# A host built from nothing but the pkg-config flags.
if(NOT PKG_CONFIG)
  message(FATAL_ERROR "pkg-config is needed for this test (scripts/deps.sh installs it)")
endif()
file(GLOB pc_dirs ${prefix}/*/pkgconfig ${prefix}/*/*/pkgconfig)
list(JOIN pc_dirs ":" pc_path)
set(ENV{PKG_CONFIG_PATH} "${pc_path}")
run("pkg-config flags" ${PKG_CONFIG} --cflags --libs kest)
separate_arguments(pc_flags UNIX_COMMAND "${run_output}")
run("pkg-config libdir" ${PKG_CONFIG} --variable=libdir kest)
string(STRIP "${run_output}" libdir)
run("pkg-config plugindir" ${PKG_CONFIG} --variable=plugindir kest)
string(STRIP "${run_output}" plugindir)
run("compile pkg-config host" ${C_COMPILER} ${cflags} ${CONSUMER_DIR}/pc_host.c ${pc_flags}
    -lkest_host -lm ${ldflags} -Wl,-rpath,${libdir} -o ${WORK_DIR}/pc_host)
run("pkg-config host" ${WORK_DIR}/pc_host ${plugindir})

# The installed kestcap finds its library and its plug-ins from its own place.
if(EXISTS ${prefix}/bin/kestcap)
  run("installed kestcap, no environment" env -i ${prefix}/bin/kestcap --list-plugins)
  if(NOT run_output MATCHES "  tcp  *tcp.plg [^\n]* Active")
    message(FATAL_ERROR "the installed kestcap lists no active TCP decoder:\n${run_output}")
  endif()
endif()

# The installed Python package finds the library and the installed decoders
# from its own place, with nothing but its site folder on the path.
file(GLOB python_package ${prefix}/lib/python3*/dist-packages/kest/__init__.py)
find_program(python NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(python_package AND python)
  get_filename_component(site ${python_package} DIRECTORY)
  get_filename_component(site ${site} DIRECTORY)
  run("installed Python package, no environment" env -i PYTHONPATH=${site} ${python} -c
      "import kest\nprint(kest.default_plugins(), len(list(kest.Flows('${CONSUMER_DIR}/../../../examples/loopback.pcap'))))")
  if(NOT run_output MATCHES "^${prefix}/lib[^ ]*/kest/plugins [1-9]")
    message(FATAL_ERROR "the installed package did not use the installed decoders:\n${run_output}")
  endif()
endif()

# kestcap's sources on the package alone, as any user's host: the same
# connections and labels as the installed kestcap on the same capture.
if(KESTCAP_DIR AND EXISTS ${prefix}/bin/kestcap)
  set(kestcap_build ${WORK_DIR}/kestcap-build)
  run("configure kestcap on the package" ${CMAKE_COMMAND} -S ${KESTCAP_DIR} -B ${kestcap_build}
      ${configure_args})
  run("build kestcap on the package" ${CMAKE_COMMAND} --build ${kestcap_build})
  run("kestcap on the package" env -i ${kestcap_build}/kestcap --json ${KESTCAP_CAPTURE})
  set(standalone_lines "${run_output}")
  run("installed kestcap" env -i ${prefix}/bin/kestcap --json ${KESTCAP_CAPTURE})
  if(NOT standalone_lines STREQUAL run_output OR NOT run_output MATCHES "\"app\"")
    message(FATAL_ERROR "kestcap built on the package reads the capture otherwise:\n"
                        "${standalone_lines}\ninstalled:\n${run_output}")
  endif()
endif()

# The plug-in template, as an author starts from it: built from the installed
# copy, its table and capture tests run.
set(template_build ${WORK_DIR}/template-build)
run("configure template" ${CMAKE_COMMAND} -S ${prefix}/${TEMPLATE_DIR} -B ${template_build}
    ${configure_args})
run("build template" ${CMAKE_COMMAND} --build ${template_build})
run("template tests" ${CTEST} --test-dir ${template_build} --output-on-failure)
