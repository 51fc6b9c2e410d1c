// Storage of the toolkit globals declared in TSDefines.h.
#include "TSDefines.h"

namespace Tessara {

namespace {

// Empty when the library is loaded, destroyed when it is unloaded. Reached
// only through the two functions below.
std::string shaderPath;

}  // namespace

std::string& ___ts_define_shader_path()
{
    return shaderPath;
}

void ___ts_define_shader_path_set(const std::string& path)
{
    shaderPath = path;
}

}  // namespace Tessara

void (*tss_glBlendEquationi)(GLuint buffer, GLenum mode) = nullptr;
void (*tss_glBlendFunci)(GLuint buffer, GLenum sfactor, GLenum dfactor) = nullptr;
