# The dynamic symbol table of the shared library, as a host's linker sees it.
#
#   cmake -DLIBRARY=<libhdrgpubackend.so> -DNM=<nm> -DGROUP=<group> -P ExportsTest.cmake
#
# GROUP is one of
#   EntryPoints     the ten public entry points under their C++ (overload-
#                   mangled) names, and no unmangled C symbol of the same name;
#   ClassMethods    methods and static members of HdrGenerate, HdrRender,
#                   HdrFactorySettings and Tessara::TSShaderManager under their
#                   own (demangled) names;
#   ToolkitGlobals  the toolkit's shader-path accessor and setter and its two
#                   blend-function pointer globals.
# The mangled names follow from the declarations under the Itanium C++ ABI
# with libstdc++'s C++11 string ABI (std::string is std::__cxx11::basic_string,
# and a function returning it by reference carries the [abi:cxx11] tag).

foreach(var LIBRARY NM GROUP)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "ExportsTest.cmake needs -D${var}=...")
  endif()
endforeach()
if(NOT EXISTS "${LIBRARY}")
  message(FATAL_ERROR "no library at ${LIBRARY}")
endif()

# "<type> <name>" per line, addresses removed, with a line break before the
# first and after the last entry so that every entry can be found whole.
function(read_symbols out demangle)
  set(args -D --defined-only)
  if(demangle)
    list(APPEND args -C)
  endif()
  execute_process(COMMAND "${NM}" ${args} "${LIBRARY}"
                  OUTPUT_VARIABLE raw ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} ${args} ${LIBRARY} failed (${rc}): ${err}")
  endif()
  # No "^" here: CMake re-anchors it at every search position, and the type
  # letters B and D are hexadecimal digits too.
  string(REGEX REPLACE "\n[0-9a-fA-F]+ ([A-Za-z]) " "\n\\1 " raw "\n${raw}")
  set(${out} "${raw}\n" PARENT_SCOPE)
endfunction()

set(failures 0)

# name must be defined with one of the nm type letters in types (e.g. "TW").
function(expect_symbol table types name)
  string(LENGTH "${types}" n)
  math(EXPR last "${n} - 1")
  foreach(i RANGE ${last})
    string(SUBSTRING "${types}" ${i} 1 type)
    string(FIND "${table}" "\n${type} ${name}\n" pos)
    if(NOT pos EQUAL -1)
      message(STATUS "exported (${type}): ${name}")
      return()
    endif()
  endforeach()
  message(SEND_ERROR "not exported with type [${types}]: ${name}")
  math(EXPR f "${failures} + 1")
  set(failures ${f} PARENT_SCOPE)
endfunction()

function(expect_no_symbol table name)
  string(REGEX MATCH "\n[A-Za-z] ${name}\n" found "${table}")
  if(found)
    message(SEND_ERROR "unexpectedly exported: ${name}")
    math(EXPR f "${failures} + 1")
    set(failures ${f} PARENT_SCOPE)
  endif()
endfunction()

if(GROUP STREQUAL "EntryPoints")
  read_symbols(table OFF)
  set(entry_points
    # int GpuGenerateHdrInit(const GpuGenerateHdrInitOption&)
    _Z18GpuGenerateHdrInitRK24GpuGenerateHdrInitOption
    # uint8_t** GpuGenerateHdrSetHdrInfo(HdrInfo*)
    _Z24GpuGenerateHdrSetHdrInfoP7HdrInfo
    # int GpuGenerateHdrReserveTextures(int, int, int, int)
    _Z29GpuGenerateHdrReserveTexturesiiii
    # int GpuGenerateHdrUpdateDataBegin(int&)
    _Z29GpuGenerateHdrUpdateDataBeginRi
    # int GpuGenerateHdrUpdateDataEnd(int&, int&): the second int& is substitution S_
    _Z27GpuGenerateHdrUpdateDataEndRiS_
    # int GpuGenerateHdr() and int GpuGenerateHdr(HdrInfo*)
    _Z14GpuGenerateHdrv
    _Z14GpuGenerateHdrP7HdrInfo
    # int GpuGenerateGetTBM()
    _Z17GpuGenerateGetTBMv
    # int GpuRender()
    _Z9GpuRenderv
    # void GpuGenerateHdrDestroy()
    _Z21GpuGenerateHdrDestroyv)
  foreach(name IN LISTS entry_points)
    expect_symbol("${table}" "T" "${name}")
  endforeach()
  # C++ linkage only: no plain C symbol that would clash between the overloads.
  foreach(name GpuGenerateHdrInit GpuGenerateHdrSetHdrInfo GpuGenerateHdrReserveTextures GpuGenerateHdrUpdateDataBegin
               GpuGenerateHdrUpdateDataEnd GpuGenerateHdr GpuGenerateGetTBM GpuRender
               GpuGenerateHdrDestroy)
    expect_no_symbol("${table}" "${name}")
  endforeach()

elseif(GROUP STREQUAL "ClassMethods")
  read_symbols(table ON)
  set(string_ref "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> > const&")
  set(methods
    "HdrGenerate::GetInstance()"
    "HdrGenerate::DestroyInstance()"
    "HdrGenerate::Init()"
    "HdrGenerate::getHdrTBMSurface()"
    "HdrGenerate::saveToFile()"
    "HdrGenerate::SetupShaders()"
    "HdrGenerate::UpdateTexUniform()"
    "HdrGenerate::InitTextures()"
    "HdrGenerate::InitPBOTextures()"
    "HdrGenerate::UpdateTextures()"
    "HdrGenerate::UpdatePBOs()"
    "HdrGenerate::UpdatePBOsFinished()"
    "HdrGenerate::UpdateDataBegin(int)"
    "HdrGenerate::UpdateDataEnd(int, int)"
    "HdrGenerate::setHdrInfo(HdrInfo*)"
    "HdrGenerate::LoadSettings()"
    "HdrGenerate::UpdateUniform()"
    "HdrGenerate::Draw()"
    "HdrGenerate::updateTBM()"
    "HdrRender::GetInstance()"
    "HdrRender::DestroyInstance()"
    "HdrRender::SetEGLDisplay(void*)"
    "HdrRender::InitContext()"
    "HdrRender::findContext()"
    "HdrRender::Bind()"
    "HdrRender::Unbind()"
    "HdrRender::Init()"
    "HdrRender::Terminate()"
    "HdrRender::IsInited()"
    "HdrRender::SetupShaders()"
    "HdrRender::UpdateAttribs()"
    "HdrRender::Draw()"
    "HdrFactorySettings::GetParameterFromSystemInfo(HdrFactorySettings::Parameter&)"
    "HdrFactorySettings::GetParameter(HdrFactorySettings::Parameter&)"
    "HdrFactorySettings::GetParameterInFile(${string_ref}, HdrFactorySettings::Parameter&)"
    "HdrFactorySettings::Parameter::CheckValueIllegal(${string_ref}) const"
    "HdrFactorySettings::Parameter::Print(${string_ref}) const"
    "Tessara::TSShaderManager::TSShaderManager()"
    "Tessara::TSShaderManager::~TSShaderManager()"
    "Tessara::TSShaderManager::CreateProgram(char const*, char const*)"
    "Tessara::TSShaderManager::GetProgram()"
    "Tessara::TSShaderManager::AddAttribute(int, char const*)"
    "Tessara::TSShaderManager::AddUniform(int, char const*)"
    "Tessara::TSShaderManager::GetAttribute(int)"
    "Tessara::TSShaderManager::GetUniform(int)"
    "Tessara::TSShaderManager::compileShader(unsigned int, char const*)"
    "Tessara::TSShaderManager::printGLErrorLog(unsigned int, unsigned int)")
  foreach(name IN LISTS methods)
    expect_symbol("${table}" "TW" "${name}")
  endforeach()
  # The two singletons' instance pointers are static data members.
  expect_symbol("${table}" "BDV" "HdrGenerate::pInstance")
  expect_symbol("${table}" "BDV" "HdrRender::pInstance")

elseif(GROUP STREQUAL "ToolkitGlobals")
  read_symbols(table OFF)
  # std::string& Tessara::___ts_define_shader_path()
  expect_symbol("${table}" "T" "_ZN7Tessara24___ts_define_shader_pathB5cxx11Ev")
  # void Tessara::___ts_define_shader_path_set(const std::string&)
  expect_symbol("${table}" "T"
    "_ZN7Tessara28___ts_define_shader_path_setERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")
  # Function-pointer globals at namespace scope: unmangled, data.
  expect_symbol("${table}" "BDV" "tss_glBlendEquationi")
  expect_symbol("${table}" "BDV" "tss_glBlendFunci")

else()
  message(FATAL_ERROR "unknown GROUP ${GROUP}")
endif()

if(failures GREATER 0)
  message(FATAL_ERROR "${failures} symbol check(s) failed in ${LIBRARY}")
endif()
