// Writes the gain-map program's two sources, exactly as the library compiles
// them, to <dir>/gainmap.vert and <dir>/gainmap.frag, and every specialised
// fragment text to <dir>/gainmap-variant-<index>.frag, so that an offline
// GLSL front end can check them.
#include "HdrGainMapVariant.h"
#include "HdrGenerateShaders.h"

#include <cstdio>
#include <string>

namespace {

bool WriteFile(const std::string& path, const char* text)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        std::perror(path.c_str());
        return false;
    }
    const std::string content = text;
    const bool written = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        std::fprintf(stderr, "%s: write failed\n", path.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output directory>\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    bool ok = WriteFile(dir + "/gainmap.vert", kGainMapVertexShader) &&
              WriteFile(dir + "/gainmap.frag", kGainMapFragmentShader);
    for (int index = 0; ok && index < kGainMapVariantCount; ++index) {
        const int c = index / 2;  // the class but for the gain curve
        GainMapVariant variant;
        variant.inputCurve = c / 16 % 4;
        variant.packedGain = c >= 64;
        variant.applyGamma = (c & 8) != 0;
        variant.outputYuv = (c & 4) != 0;
        variant.flatGainChroma = (c & 2) != 0;
        variant.logDomain = (c & 1) != 0;
        variant.affineGainCurve = (index & 1) != 0;
        const std::string text = GainMapVariantFragmentSource(variant);
        ok = WriteFile(dir + "/gainmap-variant-" + std::to_string(index) + ".frag", text.c_str());
    }
    return ok ? 0 : 1;
}
