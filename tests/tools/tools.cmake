# Tests of the gain-map JPEG reader and writer (tools/hdrgpu-convert), one
# file per concern around a shared support pair. Included from
# tests/CMakeLists.txt. The sample photographs are read from
# ../shared/samples beside the repository; the sample tests skip when that
# folder is absent.
find_package(JPEG REQUIRED)
add_executable(gain_map_jpeg_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegTestSupport.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegSamplesTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegRefusalsTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegFormsTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegLocationTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegWriterTest.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/GainMapJpegSeedsTest.cpp)
target_link_libraries(gain_map_jpeg_tests PRIVATE hdrgpu_gainmap_jpeg JPEG::JPEG GTest::gtest GTest::gtest_main)
target_compile_definitions(gain_map_jpeg_tests PRIVATE
  HDRGPU_SAMPLES_DIR="${PROJECT_SOURCE_DIR}/../shared/samples")
gtest_discover_tests(gain_map_jpeg_tests
  DISCOVERY_TIMEOUT 60
  PROPERTIES TIMEOUT 300)
