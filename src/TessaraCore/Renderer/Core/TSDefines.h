// Globals of the rendering toolkit: its shader directory and the slots for
// the indexed blend entry points of GLES. The library itself uses none of
// them; they are exported for code built on the toolkit.
#ifndef TS_DEFINES_H
#define TS_DEFINES_H

#include <GLES3/gl3.h>

#include <string>

namespace Tessara {

// The toolkit's shader directory, empty until set. Not guarded: set it before
// any thread reads it.
// The names are the toolkit's exported interface, reserved spelling and all.
std::string& ___ts_define_shader_path();                     // NOLINT(bugprone-reserved-identifier)
void ___ts_define_shader_path_set(const std::string& path);  // NOLINT(bugprone-reserved-identifier)

}  // namespace Tessara

// Slots for glBlendEquationi and glBlendFunci. They start null and the
// library neither sets nor calls them.
extern void (*tss_glBlendEquationi)(GLuint buffer, GLenum mode);
extern void (*tss_glBlendFunci)(GLuint buffer, GLenum sfactor, GLenum dfactor);

#endif
