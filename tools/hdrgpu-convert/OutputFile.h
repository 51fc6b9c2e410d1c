// Creating an output file: a writer fills it, and a file that could not be
// written whole is removed, so that no partial output is left behind.
#ifndef HDRGPU_CONVERT_OUTPUT_FILE_H
#define HDRGPU_CONVERT_OUTPUT_FILE_H

#include <cstdio>
#include <functional>
#include <string>

namespace hdrconvert {

// Writes the whole content to file; false with a reason.
using FileFiller = std::function<bool(FILE* file, std::string* reason)>;

// Creates path, fills it and closes it. False with a reason ("cannot create
// PATH: ...", the filler's, or "cannot write PATH: ..."), the file removed.
bool WriteOutputFile(const std::string& path, const FileFiller& fill, std::string* reason);

// "cannot write PATH: " and errno's text.
std::string WriteFailure(const std::string& path);

}  // namespace hdrconvert

#endif
