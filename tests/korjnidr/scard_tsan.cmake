# The smart card concurrency tests again, built from the library's smart card sources under
# ThreadSanitizer as their own binary (the shipped objects are not instrumented).
file(GLOB KORJNIDR_TSAN_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/korjnidr/source/scard_*.cpp)
add_executable(korjnidr_scard_tsan ${CMAKE_CURRENT_LIST_DIR}/source/scard_concurrency_test.cpp
               ${KORJNIDR_TSAN_SOURCES} ${CMAKE_SOURCE_DIR}/src/korjnidr/source/jni_support.cpp)
target_include_directories(korjnidr_scard_tsan PRIVATE ${CMAKE_SOURCE_DIR}/src/korjnidr/source
                           ${JNI_INCLUDE_DIRS} ${PCSC_INCLUDE_DIR})
target_compile_options(korjnidr_scard_tsan PRIVATE -fsanitize=thread -O1 -g)
target_link_options(korjnidr_scard_tsan PRIVATE -fsanitize=thread)
target_link_libraries(korjnidr_scard_tsan PRIVATE korjnidr_native_headers GTest::gtest_main
                      ${CMAKE_DL_LIBS} Threads::Threads)
target_compile_definitions(korjnidr_scard_tsan PRIVATE
  KORJNIDR_STANDIN_FULL="${KORJNIDR_STANDIN_DIR}/full/libpcsclite.so.1")
add_dependencies(korjnidr_scard_tsan pcsc_standin_full)
add_test(NAME cpp.scard_tsan COMMAND korjnidr_scard_tsan)
set_tests_properties(cpp.scard_tsan PROPERTIES ENVIRONMENT "TSAN_OPTIONS=halt_on_error=1")
