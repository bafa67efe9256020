# Install rules: the library and its headers, the host support library, the
# packing tool and kestcap, the project's decoder plug-ins, two ways for other
# projects to find them: a CMake package (find_package(kest), with
# kest_add_plugin and kest_add_capture_test) and a pkg-config file, and the
# plug-in author's guide with a template project.
include(CMakePackageConfigHelpers)

set(KEST_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kest)
set(KEST_INSTALL_PLUGINDIR ${CMAKE_INSTALL_LIBDIR}/kest/plugins)

# An installed folder as an absolute path, for the paths between them.
function(kest_full_dir var dir)
  if(IS_ABSOLUTE "${dir}")
    set(${var} "${dir}" PARENT_SCOPE)
  else()
    set(${var} "${CMAKE_INSTALL_PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
kest_full_dir(_bindir "${CMAKE_INSTALL_BINDIR}")
kest_full_dir(_libdir "${CMAKE_INSTALL_LIBDIR}")
kest_full_dir(_plugindir "${KEST_INSTALL_PLUGINDIR}")

# Imported as kest::kest, kest::host, kest::plg and, when it is built,
# kest::kestcap.
set_target_properties(kest-plg PROPERTIES EXPORT_NAME plg)
set_target_properties(kest_host PROPERTIES EXPORT_NAME host)
set(_exported kest kest_host kest-plg)
if(TARGET kestcap)
  list(APPEND _exported kestcap)
  # The installed kestcap finds the library and its plug-in folder from its
  # own place, so that an installed tree works wherever it was put, with no
  # environment set (and never falls back to this build tree).
  file(RELATIVE_PATH _bin_to_lib "${_bindir}" "${_libdir}")
  file(RELATIVE_PATH _bin_to_plugins "${_bindir}" "${_plugindir}")
  set_target_properties(kestcap PROPERTIES INSTALL_RPATH "$ORIGIN/${_bin_to_lib}")
  target_compile_definitions(kestcap PRIVATE KESTCAP_INSTALLED_PLUGIN_DIR="${_bin_to_plugins}")
endif()
install(TARGETS ${_exported}
        EXPORT kestTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES ${CMAKE_SOURCE_DIR}/include/kest.h ${CMAKE_SOURCE_DIR}/tools/host/kest_host.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/kest DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

# Only the plug-ins defined under decoders/ ship; the tests and fuzz targets
# pack plug-ins of their own that must stay in the build tree. The folder is
# made even when there are none, so that KEST_PLUGIN_DIR always names a folder.
install(DIRECTORY DESTINATION ${KEST_INSTALL_PLUGINDIR})
get_property(_kest_plugins GLOBAL PROPERTY KEST_PLUGIN_TARGETS)
foreach(_plugin IN LISTS _kest_plugins)
  get_target_property(_dir ${_plugin} SOURCE_DIR)
  string(FIND "${_dir}/" "${CMAKE_SOURCE_DIR}/decoders/" _at)
  if(_at EQUAL 0)
    get_target_property(_file ${_plugin} KEST_PLUGIN_FILE)
    install(FILES ${_file} DESTINATION ${KEST_INSTALL_PLUGINDIR})
  endif()
endforeach()

# The CMake package.
install(EXPORT kestTargets NAMESPACE kest:: DESTINATION ${KEST_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/kestConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/cmake/kestConfig.cmake
                              INSTALL_DESTINATION ${KEST_INSTALL_CMAKEDIR}
                              PATH_VARS KEST_INSTALL_PLUGINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/kestConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/cmake/kestConfig.cmake
              ${CMAKE_BINARY_DIR}/cmake/kestConfigVersion.cmake
              ${CMAKE_SOURCE_DIR}/cmake/KestPlugin.cmake
              ${CMAKE_SOURCE_DIR}/cmake/KestCaptureTest.cmake
        DESTINATION ${KEST_INSTALL_CMAKEDIR})

# The plug-in guide, and the template project it starts from.
install(FILES ${CMAKE_SOURCE_DIR}/docs/plugin-guide.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/plugin-template/
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/template USE_SOURCE_PERMISSIONS)

# The pkg-config file finds its prefix from its own place (${pcfiledir}), so
# that an install with --prefix, or a moved tree, still reads right.
function(kest_pc_dir var dir)
  if(IS_ABSOLUTE "${dir}")
    set(${var} "${dir}" PARENT_SCOPE)
  else()
    set(${var} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KEST_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" _up "${_up}")
  set(KEST_PC_PREFIX "\${pcfiledir}/${_up}")
endif()
kest_pc_dir(KEST_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
kest_pc_dir(KEST_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/kest.pc.in ${CMAKE_BINARY_DIR}/cmake/kest.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/cmake/kest.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
