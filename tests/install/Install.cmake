# Installs this build into a folder of the build tree and builds projects of
# their own against that folder only: a plug-in through find_package(kest) and
# kest_add_plugin, a host on kest::kest and kest::host that classifies a
# packet, a host compiled from the pkg-config flags, the installed plug-in
# template with its tests, and kestcap's own sources, which must build on the
# package alone and read a capture as the installed kestcap does. The
# installed kestcap must start with no environment at all.
find_program(KEST_PKG_CONFIG NAMES pkg-config pkgconf)
add_test(NAME InstallConsumer
         COMMAND ${CMAKE_COMMAND}
                 -DBUILD_DIR=${CMAKE_BINARY_DIR}
                 -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install
                 -DCONSUMER_DIR=${CMAKE_CURRENT_LIST_DIR}/consumer
                 -DGENERATOR=${CMAKE_GENERATOR}
                 -DBUILD_TYPE=${CMAKE_BUILD_TYPE}
                 -DC_COMPILER=${CMAKE_C_COMPILER}
                 -DCXX_COMPILER=${CMAKE_CXX_COMPILER}
                 -DCOMPILER_ID=${CMAKE_CXX_COMPILER_ID}
                 -DSANITIZE=${KEST_SANITIZE}
                 -DPKG_CONFIG=${KEST_PKG_CONFIG}
                 -DCTEST=${CMAKE_CTEST_COMMAND}
                 -DTEMPLATE_DIR=${CMAKE_INSTALL_DOCDIR}/template
                 -DKESTCAP_DIR=${CMAKE_SOURCE_DIR}/tools/kestcap
                 -DKESTCAP_CAPTURE=${CMAKE_SOURCE_DIR}/tests/golden/captures/flow_risks.pcap
                 -P ${CMAKE_CURRENT_LIST_DIR}/RunInstallTest.cmake)
set_tests_properties(InstallConsumer PROPERTIES TIMEOUT 300)
