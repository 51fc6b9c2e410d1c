# The library against a careless or hostile host: plane sizes at the limits
# and unserialised calls.
hdrgpu_add_test(hostile_input_tests INTERNAL SOURCES HostileInputTest.cpp)

# The converter against files that lie about their metadata or their size.
if(COMMAND hdrgpu_add_convert_test)
  hdrgpu_add_convert_test(convert_hostile_file_tests 300
    ${CMAKE_CURRENT_SOURCE_DIR}/tools/ConvertHostileFileTest.cpp)
endif()
