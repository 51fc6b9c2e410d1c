hdrgpu_add_test(end_to_end_draw_tests INTERNAL SOURCES EndToEndDrawTest.cpp support/ConstantsModel.cpp support/GainMapModel.cpp support/EngineHarness.cpp support/EngineTestSupport.cpp)
