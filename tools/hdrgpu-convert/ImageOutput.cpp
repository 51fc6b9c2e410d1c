#include "ImageOutput.h"

#include "OutputFile.h"
#include "PngWriter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace hdrconvert {

namespace {

struct FormatEntry {
    OutputFormat format;
    const char* name;
    const char* extension;
};

constexpr FormatEntry kFormats[] = {
    {OutputFormat::Png, "png", ".png"},
    {OutputFormat::Raw, "raw", ".rgba"},
    {OutputFormat::PqPng, "pq-png", ".png"},
    {OutputFormat::Avif, "avif", ".avif"},
};

const FormatEntry& EntryOf(OutputFormat format)
{
    for (const FormatEntry& entry : kFormats) {
        if (entry.format == format) {
            return entry;
        }
    }
    return kFormats[0];
}

}  // namespace

const char* OutputExtension(OutputFormat format)
{
    return EntryOf(format).extension;
}

const char* OutputFormatName(OutputFormat format)
{
    return EntryOf(format).name;
}

bool OutputFormatNamed(const std::string& name, OutputFormat* format)
{
    for (const FormatEntry& entry : kFormats) {
        if (name == entry.name) {
            *format = entry.format;
            return true;
        }
    }
    return false;
}

bool IsHdrFormat(OutputFormat format)
{
    return format == OutputFormat::PqPng || format == OutputFormat::Avif;
}

bool WriteImage(const std::string& path, OutputFormat format, const uint8_t* rgba, int width, int height, int pngLevel,
                std::string* reason, bool yuv)
{
    if (rgba == nullptr || width < 1 || height < 1) {
        *reason = "no picture to write";
        return false;
    }
    const size_t stride = static_cast<size_t>(width) * 4;
    return WriteImageRows(
        path, format, width, height, pngLevel,
        [rgba, stride](int y, uint8_t*) { return rgba + static_cast<size_t>(y) * stride; }, reason, yuv);
}

bool WriteImageRows(const std::string& path, OutputFormat format, int width, int height, int pngLevel,
                    const RowSource& rows, std::string* reason, bool yuv)
{
    if (!rows || width < 1 || height < 1) {
        *reason = "no picture to write";
        return false;
    }
    if (format != OutputFormat::Png && format != OutputFormat::Raw) {
        *reason = "not an 8-bit format";
        return false;
    }
    const size_t stride = static_cast<size_t>(width) * 4;
    if (format == OutputFormat::Raw) {
        // Rows gathered into about a mebibyte per write: a row at a time,
        // a large picture costs thousands of system calls.
        const int chunkRows = static_cast<int>(std::max<size_t>(1, (size_t{1} << 20) / stride));
        std::vector<uint8_t> chunk(stride * static_cast<size_t>(std::min(chunkRows, height)));
        return WriteOutputFile(
            path,
            [&](FILE* file, std::string* why) {
                for (int top = 0; top < height; top += chunkRows) {
                    const int count = std::min(chunkRows, height - top);
                    for (int i = 0; i < count; ++i) {
                        uint8_t* target = chunk.data() + static_cast<size_t>(i) * stride;
                        const uint8_t* row = rows(top + i, target);
                        if (row != target) {
                            std::memcpy(target, row, stride);
                        }
                    }
                    const size_t bytes = stride * static_cast<size_t>(count);
                    if (std::fwrite(chunk.data(), 1, bytes, file) != bytes) {
                        *why = WriteFailure(path);
                        return false;
                    }
                }
                return true;
            },
            reason);
    }
    std::vector<uint8_t> row(stride);
    const auto next = [&rows, &row](int y) { return rows(y, row.data()); };
    PngLayout layout;
    layout.width = width;
    layout.height = height;
    // The codes are sRGB-encoded BT.709 (scaled to the panel's peak, which a
    // viewer shows as its own white); YUV output has no colour space to name.
    layout.srgb = !yuv;
    return WriteOutputFile(
        path, [&](FILE* file, std::string* why) { return WritePngFile(file, layout, pngLevel, next, why); }, reason);
}

}  // namespace hdrconvert
