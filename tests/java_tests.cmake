# One line per JUnit class (see korjnidr_java_test in CMakeLists.txt). SANITIZED classes also run
# against the library built under the address and undefined-behaviour sanitizers.
korjnidr_java_test(ChangeNotificationTest SANITIZED)
korjnidr_java_test(DriveDescriptorTest SANITIZED)
korjnidr_java_test(DriveHelperTest SANITIZED)
korjnidr_java_test(DrivePermissionTest WRAPPER bash ${CMAKE_CURRENT_SOURCE_DIR}/as_unprivileged.sh)
# Smart card entry points against the PC/SC stand-in variants (tests/pcsc_standin).
korjnidr_java_test(ScardStandinTest SANITIZED ENV LD_LIBRARY_PATH=${KORJNIDR_STANDIN_DIR}/full)
korjnidr_java_test(ScardLoadFailureTest ENV LD_LIBRARY_PATH=${KORJNIDR_STANDIN_DIR}/broken)
# Against pcscd with a virtual card (ctest -L realstack); one pcscd at a time.
korjnidr_java_test(RealStackTest LABELS realstack WRAPPER bash ${CMAKE_CURRENT_SOURCE_DIR}/realstack/with_pcscd.sh)
set_tests_properties(java.RealStackTest PROPERTIES RESOURCE_LOCK pcscd)
# The korjnidr tool: decoding, replay of the captured session, doctor and the Debian package.
korjnidr_java_test(tool.DecoderTest ENV KORJNIDR_CAPTURE=${CMAKE_SOURCE_DIR}/tests/data/windows-server/requests.tsv)
add_test(NAME tool.replay COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/realstack/with_pcscd.sh ${CMAKE_BINARY_DIR}/korjnidr
                               replay ${CMAKE_SOURCE_DIR}/tests/data/windows-server/session.tsv)
add_test(NAME tool.doctor_without_pcscd COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/realstack/doctor_without_pcscd.sh
                                               ${CMAKE_BINARY_DIR}/korjnidr)
add_test(NAME tool.package COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/realstack/package_test.sh ${CMAKE_BINARY_DIR})
set_tests_properties(tool.replay tool.doctor_without_pcscd tool.package PROPERTIES
                     LABELS realstack RESOURCE_LOCK pcscd TIMEOUT 600)
