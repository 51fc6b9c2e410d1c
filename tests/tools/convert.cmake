# The converter (tools/hdrgpu-convert): its parts, its command line and its
# pictures against the CPU model of the gain-map program. Included from
# tests/CMakeLists.txt.
# The tests set the factory tuning through the system-information stand-in's
# keys (the converter's --peak-white and --photo-hdr), which only the
# stand-ins have.
if(HDRGPU_USE_PLATFORM_PACKAGES)
  return()
endif()

find_package(JPEG REQUIRED)
find_package(PNG REQUIRED)

# The real photographs (skipped when absent); HDRGPU_SAMPLES_DIR in the
# environment overrides the folder at run time.
get_filename_component(HDRGPU_CONVERT_SAMPLES_DIR ${PROJECT_SOURCE_DIR}/../shared/samples ABSOLUTE)
set(HDRGPU_CONVERT_TEST_DIR ${CMAKE_CURRENT_BINARY_DIR}/convert-tests)

# hdrgpu_add_convert_test(<name> <timeout seconds> <sources>...)
function(hdrgpu_add_convert_test name timeout)
  add_executable(${name} ${ARGN}
    ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertTestSupport.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/support/ConstantsModel.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/support/GainMapModel.cpp)
  target_include_directories(${name} PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR}/support ${CMAKE_CURRENT_SOURCE_DIR}/tools)
  target_link_libraries(${name} PRIVATE
    hdrgpu_convert_core PNG::PNG JPEG::JPEG PkgConfig::EGL GTest::gtest GTest::gtest_main Threads::Threads)
  target_compile_definitions(${name} PRIVATE
    HDRGPU_CONVERT_EXE="$<TARGET_FILE:hdrgpu-convert>"
    HDRGPU_SAMPLES_DIR="${HDRGPU_CONVERT_SAMPLES_DIR}"
    HDRGPU_CONVERT_TEST_DIR="${HDRGPU_CONVERT_TEST_DIR}")
  add_dependencies(${name} hdrgpu-convert)
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${timeout}
               ENVIRONMENT "${HDRGPU_TEST_ENVIRONMENT}")
endfunction()

hdrgpu_add_convert_test(convert_unit_tests 120
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertJpegPlanesTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertPageReleaseTest.cpp)
hdrgpu_add_convert_test(convert_cli_tests 300
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertCliTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertSampleMakerTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertOrientationTest.cpp)
# Two of its tests render every photograph twice (both paths).
hdrgpu_add_convert_test(convert_streaming_tests 900
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertStreamingTest.cpp)
# Each test of this one runs (at first use) a whole batch of photographs,
# the 12.5-megapixel one included.
hdrgpu_add_convert_test(convert_photograph_tests 900
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertPhotographsTest.cpp)
# The HDR outputs read back with libpng and libavif, and the JSON report
# parsed with nlohmann-json.
find_package(nlohmann_json 3 REQUIRED)
hdrgpu_add_convert_test(convert_output_tests 300
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertHdrOutputTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertJsonReportTest.cpp)
target_link_libraries(convert_output_tests PRIVATE PkgConfig::AVIF nlohmann_json::nlohmann_json)
