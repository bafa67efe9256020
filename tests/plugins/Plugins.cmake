# Plug-ins for the plug-in manager's tests: one recording source built once per
# file, each scenario in a directory of its own, so that a test opens an
# instance on exactly the files it is about. The plug-ins find the test
# program's recorder at run time, so the test program exports its symbols.
set(KEST_PM_PLUGIN_SOURCE ${CMAKE_CURRENT_LIST_DIR}/fixtures/recording_plugin.cpp)
set(KEST_PM_PLUGIN_ROOT ${CMAKE_BINARY_DIR}/tests/plugins)

# kest_pm_plugin(<scenario> <file> <name> [<definition>...]): <file>.plg in the
# scenario's directory, reporting the plug-in name <name>; the definitions
# replace the defaults of the same names.
function(kest_pm_plugin scenario file name)
  kest_add_plugin(NAME ${file} SOURCES ${KEST_PM_PLUGIN_SOURCE}
                  OUTPUT_DIRECTORY ${KEST_PM_PLUGIN_ROOT}/${scenario} LIBRARIES ${CMAKE_DL_LIBS})
  set(defs PLUGIN_MAJOR=1 PLUGIN_PATCH=0 PLUGIN_BUILD=0 PLUGIN_COMPATIBLE=true
           PLUGIN_INIT_INSTANCE=true PLUGIN_INIT_THREAD=true PLUGIN_MEMTAGS=false)
  foreach(def ${ARGN})
    string(REGEX REPLACE "=.*" "" key ${def})
    list(FILTER defs EXCLUDE REGEX "^${key}=")
  endforeach()
  target_compile_definitions(${file}_so PRIVATE PLUGIN_TAG="${file}" PLUGIN_NAME="${name}" ${defs}
                                                ${ARGN})
  add_dependencies(kest_tests ${file})
endfunction()

# Same names and versions, in scan order: equal versions, a newer second file,
# a file named like the built-in transport plug-in with a lower version, and
# one that calls itself incompatible.
kest_pm_plugin(versions pm_a_same1 same PLUGIN_PATCH=2 PLUGIN_BUILD=4)
kest_pm_plugin(versions pm_b_same2 same PLUGIN_PATCH=2 PLUGIN_BUILD=4)
kest_pm_plugin(versions pm_c_newer1 newer PLUGIN_BUILD=9)
kest_pm_plugin(versions pm_d_newer2 newer PLUGIN_PATCH=1)
kest_pm_plugin(versions pm_e_transport kest_test_transport PLUGIN_MAJOR=0)
kest_pm_plugin(versions pm_f_incompatible incompatible PLUGIN_COMPATIBLE=false)

# Loaded zeta first, called alpha first.
kest_pm_plugin(order pm_a_zeta zeta)
kest_pm_plugin(order pm_b_alpha alpha)

# The second plug-in's instance start-up fails.
kest_pm_plugin(initfail pm_if_a a)
kest_pm_plugin(initfail pm_if_b b PLUGIN_INIT_INSTANCE=false)

# The middle plug-in's thread start-up fails.
kest_pm_plugin(threadfail pm_tf_a a)
kest_pm_plugin(threadfail pm_tf_b b PLUGIN_INIT_THREAD=false)
kest_pm_plugin(threadfail pm_tf_c c)

# A plug-in with memory tags of its own.
kest_pm_plugin(memtags pm_mt_tagger tagger PLUGIN_MEMTAGS=true)

set_target_properties(kest_tests PROPERTIES ENABLE_EXPORTS ON)
target_compile_definitions(kest_tests PRIVATE
  KEST_TEST_PM_VERSIONS_DIR="${KEST_PM_PLUGIN_ROOT}/versions"
  KEST_TEST_PM_ORDER_DIR="${KEST_PM_PLUGIN_ROOT}/order"
  KEST_TEST_PM_INITFAIL_DIR="${KEST_PM_PLUGIN_ROOT}/initfail"
  KEST_TEST_PM_THREADFAIL_DIR="${KEST_PM_PLUGIN_ROOT}/threadfail"
  KEST_TEST_PM_MEMTAGS_DIR="${KEST_PM_PLUGIN_ROOT}/memtags")
