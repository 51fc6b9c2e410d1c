# The public interface: the entry points as a host calls them, and the
# library's dynamic symbol table.
# One executable, one file per concern; support/PublicApiSupport.h holds the
# fixture and helpers they share.
hdrgpu_add_test(public_api_tests INTERNAL
  SOURCES PublicApiStatesTest.cpp PublicApiEdgesTest.cpp PublicApiInitTest.cpp PublicApiRenderTest.cpp
          PublicApiCyclesTest.cpp PublicApiBindingTest.cpp PublicApiThreadsTest.cpp PublicApiBadInputTest.cpp
          PublicApiOrderTest.cpp PublicApiReserveTest.cpp
          support/ConstantsModel.cpp support/GainMapModel.cpp support/EngineTestSupport.cpp)

foreach(group EntryPoints ClassMethods ToolkitGlobals)
  add_test(NAME Exports.${group}
    COMMAND ${CMAKE_COMMAND}
            -DLIBRARY=$<TARGET_FILE:hdrgpubackend>
            -DNM=${CMAKE_NM}
            -DGROUP=${group}
            -P ${CMAKE_CURRENT_SOURCE_DIR}/ExportsTest.cmake)
  set_tests_properties(Exports.${group} PROPERTIES TIMEOUT 60)
endforeach()
