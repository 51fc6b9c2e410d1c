# The library against a careless or hostile host: plane sizes at the limits
# and unserialised calls.
hdrgpu_add_test(hostile_input_tests INTERNAL SOURCES HostileInputTest.cpp)
