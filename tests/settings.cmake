# The settings file reader, and the soak of the public interface.
hdrgpu_add_test(settings_file_tests INTERNAL SOURCES SettingsFileTest.cpp)

# The soak runs far longer than the per-test limit of hdrgpu_add_test, so its
# executable is built the same way but registered with plain add_test, one
# CTest test per soak (gtest's exit status fails the test), each allowed ten
# minutes.
add_executable(soak_tests SoakTest.cpp support/EngineTestSupport.cpp ${HDRGPU_TEST_SUPPORT})
target_include_directories(soak_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support)
target_link_libraries(soak_tests PRIVATE hdrgpu_internal
  hdrgpubackend GTest::gtest GTest::gtest_main
  PkgConfig::EGL PkgConfig::GLES glm::glm Threads::Threads ${CMAKE_DL_LIBS}
  hdrgpu::tbm hdrgpu::system_info hdrgpu::dlog)
set_target_properties(soak_tests PROPERTIES ENABLE_EXPORTS ON)
foreach(soak IN ITEMS Soak.StreamingThousandPictures Soak.InitDestroyCycles)
  add_test(NAME ${soak} COMMAND soak_tests --gtest_filter=${soak})
  set_tests_properties(${soak} PROPERTIES
    TIMEOUT 600
    # A filter that matches nothing must not pass silently.
    FAIL_REGULAR_EXPRESSION "0 tests from 0 test suites ran"
    ENVIRONMENT "${HDRGPU_TEST_ENVIRONMENT}")
endforeach()
