# The concurrency tests again (smart card service life, the watcher's wake-ups and table), against
# the library built under ThreadSanitizer as a binary of their own (the shipped objects are not
# instrumented).
korjnidr_library(korjnidr_tsan STATIC FLAGS -fsanitize=thread)
add_executable(korjnidr_scard_tsan ${CMAKE_CURRENT_LIST_DIR}/source/scard_concurrency_test.cpp
               ${CMAKE_CURRENT_LIST_DIR}/source/change_notification_test.cpp)
target_link_libraries(korjnidr_scard_tsan PRIVATE korjnidr_tsan pcsc_standin_full GTest::gtest_main)
target_compile_options(korjnidr_scard_tsan PRIVATE ${KORJNIDR_TEST_WARNINGS})
add_test(NAME cpp.tsan COMMAND korjnidr_scard_tsan)
set_tests_properties(cpp.tsan PROPERTIES ENVIRONMENT "TSAN_OPTIONS=halt_on_error=1")
