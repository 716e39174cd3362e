# One line per JUnit class (see korjnidr_java_test in CMakeLists.txt).
korjnidr_java_test(JniFrameTest)
korjnidr_java_test(ChangeNotificationTest)
korjnidr_java_test(DriveDescriptorTest)
korjnidr_java_test(DrivePathTest)
korjnidr_java_test(DriveHelperTest WRAPPER bash ${CMAKE_CURRENT_SOURCE_DIR}/jni_local_refs_guard.sh)
korjnidr_java_test(DrivePermissionTest WRAPPER bash ${CMAKE_CURRENT_SOURCE_DIR}/as_unprivileged.sh)
