#include "OutputFile.h"

#include <cerrno>
#include <cstring>

namespace hdrconvert {

std::string WriteFailure(const std::string& path)
{
    return "cannot write " + path + ": " + std::strerror(errno);
}

bool WriteOutputFile(const std::string& path, const FileFiller& fill, std::string* reason)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        *reason = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    bool ok = fill(file, reason);
    if (std::fclose(file) != 0 && ok) {
        *reason = WriteFailure(path);
        ok = false;
    }
    if (!ok) {
        std::remove(path.c_str());
    }
    return ok;
}

}  // namespace hdrconvert
