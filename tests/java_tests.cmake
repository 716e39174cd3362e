# One line per JUnit class (see korjnidr_java_test in CMakeLists.txt).
korjnidr_java_test(JniFrameTest)
korjnidr_java_test(ChangeNotificationTest)
