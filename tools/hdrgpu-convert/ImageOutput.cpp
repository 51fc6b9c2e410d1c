#include "ImageOutput.h"

#include "OutputFile.h"
#include "PngWriter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <future>
#include <system_error>
#include <vector>

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

// Rows gathered into about a mebibyte per write: a row at a time, a large
// picture costs thousands of system calls. While one chunk is written a
// second thread gathers the next (turning the surface's byte order into
// R, G, B, A), so that the copy into the file's pages and the reorder run
// side by side.
bool WriteRawRows(FILE* file, const std::string& path, int width, int height, const RowSource& rows, std::string* why)
{
    const size_t stride = static_cast<size_t>(width) * 4;
    const int chunkRows = static_cast<int>(std::max<size_t>(1, (size_t{1} << 20) / stride));
    std::vector<uint8_t> chunks[2];
    for (std::vector<uint8_t>& chunk : chunks) {
        chunk.resize(stride * static_cast<size_t>(std::min(chunkRows, height)));
    }
    // Gathers rows top .. top + chunkRows - 1 into chunk; their byte count.
    const auto gather = [&rows, stride, chunkRows, height](int top, std::vector<uint8_t>* chunk) {
        const int count = std::min(chunkRows, height - top);
        for (int i = 0; i < count; ++i) {
            uint8_t* target = chunk->data() + static_cast<size_t>(i) * stride;
            const uint8_t* row = rows(top + i, target);
            if (row != target) {
                std::memcpy(target, row, stride);
            }
        }
        return stride * static_cast<size_t>(count);
    };
    size_t bytes = gather(0, &chunks[0]);
    for (int top = 0, current = 0; top < height; top += chunkRows, current ^= 1) {
        const int next = top + chunkRows;
        std::future<size_t> gathered;
        if (next < height) {
            try {
                gathered = std::async(std::launch::async, gather, next, &chunks[current ^ 1]);
            } catch (const std::system_error&) {
                // No thread to be had: the next chunk is gathered after this write.
            }
        }
        const bool written = std::fwrite(chunks[current].data(), 1, bytes, file) == bytes;
        if (next < height) {
            bytes = gathered.valid() ? gathered.get() : gather(next, &chunks[current ^ 1]);
        }
        if (!written) {
            *why = WriteFailure(path);
            return false;
        }
    }
    return true;
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
        return WriteOutputFile(
            path, [&](FILE* file, std::string* why) { return WriteRawRows(file, path, width, height, rows, why); },
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
