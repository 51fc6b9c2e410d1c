# The output target (EGL images, the output surface and the copy into it)
# and the gain-map program's registration.
hdrgpu_add_test(output_target_tests INTERNAL SOURCES EglImageTest.cpp UpdateTbmTest.cpp SurfaceCopyTest.cpp
  support/OutputTestSupport.cpp)
hdrgpu_add_test(gain_map_program_tests INTERNAL SOURCES GainMapProgramTest.cpp)

# The gain-map program's two sources, checked offline by the reference GLSL
# front end (ES 3.00, as their #version line says). Any error fails the test.
find_program(HDRGPU_GLSLANG_VALIDATOR glslangValidator REQUIRED)
add_executable(dump_gain_map_shaders tools/DumpGainMapShaders.cpp)
target_link_libraries(dump_gain_map_shaders PRIVATE hdrgpu_internal)
target_link_libraries(dump_gain_map_shaders PRIVATE hdrgpubackend)
set(HDRGPU_SHADER_DUMP_DIR ${CMAKE_CURRENT_BINARY_DIR}/gainmap-shaders)
# A build for another target runs the dump through its emulator, as CTest
# runs the test executables.
set(HDRGPU_DUMP_RUNNER "")
if(CMAKE_CROSSCOMPILING_EMULATOR)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" HDRGPU_DUMP_RUNNER)
  set(HDRGPU_DUMP_RUNNER "'${HDRGPU_DUMP_RUNNER}' ")
endif()
add_test(NAME GainMapShaders.PassGlslangValidator
  COMMAND sh -c "set -e; mkdir -p '${HDRGPU_SHADER_DUMP_DIR}'; \
${HDRGPU_DUMP_RUNNER}'$<TARGET_FILE:dump_gain_map_shaders>' '${HDRGPU_SHADER_DUMP_DIR}'; \
'${HDRGPU_GLSLANG_VALIDATOR}' '${HDRGPU_SHADER_DUMP_DIR}/gainmap.vert'; \
'${HDRGPU_GLSLANG_VALIDATOR}' '${HDRGPU_SHADER_DUMP_DIR}/gainmap.frag'; \
for f in '${HDRGPU_SHADER_DUMP_DIR}'/gainmap-variant-*.frag; do '${HDRGPU_GLSLANG_VALIDATOR}' \"$f\"; done; \
test $(ls '${HDRGPU_SHADER_DUMP_DIR}'/gainmap-variant-*.frag | wc -l) -eq 256")
set_tests_properties(GainMapShaders.PassGlslangValidator PROPERTIES
  FAIL_REGULAR_EXPRESSION "ERROR"
  TIMEOUT 60)

# The specialised gain-map texts and the flat-plane check: pure functions,
# tested without EGL or GLES.
add_executable(gain_map_variant_tests GainMapVariantTest.cpp ${PROJECT_SOURCE_DIR}/src/HdrGainMapVariant.cpp)
target_link_libraries(gain_map_variant_tests PRIVATE hdrgpu_internal GTest::gtest GTest::gtest_main)
gtest_discover_tests(gain_map_variant_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)

# The picture level's byte sum: a pure function, tested without EGL or GLES.
add_executable(picture_level_tests PictureLevelTest.cpp ${PROJECT_SOURCE_DIR}/src/HdrPictureLevel.cpp)
target_link_libraries(picture_level_tests PRIVATE hdrgpu_internal GTest::gtest GTest::gtest_main)
gtest_discover_tests(picture_level_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)
