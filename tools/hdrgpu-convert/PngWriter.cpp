#include "PngWriter.h"

#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>

namespace hdrconvert {

namespace {

struct PngError {
    char message[256];
};

[[noreturn]] void OnPngError(png_structp png, png_const_charp message)
{
    PngError* e = static_cast<PngError*>(png_get_error_ptr(png));
    std::snprintf(e->message, sizeof e->message, "%s", message != nullptr ? message : "PNG error");
    png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp)
{}

// The libpng calls, behind the error jump. Every object that lives across the
// setjmp exists before it (the unknown-chunk records and their names
// included), and libpng is only ever called from this frame.
bool WriteRows(png_structp png, png_infop info, FILE* file, const PngLayout& layout, int level,
               const PngRowSource& rows, std::vector<png_unknown_chunk>* unknown, std::vector<png_byte>* names)
{
    if (setjmp(png_jmpbuf(png)) != 0) {
        return false;
    }
    png_init_io(png, file);
    png_set_compression_level(png, level);
    // At the fast levels one cheap filter beats trying all five per row.
    if (level <= 3) {
        png_set_filter(png, PNG_FILTER_TYPE_BASE, level == 0 ? PNG_FILTER_NONE : PNG_FILTER_SUB);
    }
    png_set_IHDR(png, info, static_cast<png_uint_32>(layout.width), static_cast<png_uint_32>(layout.height),
                 layout.bitDepth, layout.alpha ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (layout.srgb) {
        png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    }
    if (!unknown->empty()) {
        // libpng 1.6.39 knows none of the HDR chunks (cICP, cLLi, mDCv): they
        // go in as unknown chunks, placed before PLTE/IDAT, and must be kept
        // although cICP is not safe to copy.
        const int count = static_cast<int>(unknown->size());
        png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_ALWAYS, names->data(), count);
        png_set_unknown_chunks(png, info, unknown->data(), count);
    }
    png_write_info(png, info);
    for (int y = 0; y < layout.height; ++y) {
        png_write_row(png, rows(y));
    }
    png_write_end(png, info);
    return true;
}

}  // namespace

bool WritePngFile(FILE* file, const PngLayout& layout, int level, const PngRowSource& rows, std::string* reason)
{
    std::vector<png_unknown_chunk> unknown(layout.chunks.size());
    std::vector<png_byte> names;
    for (size_t i = 0; i < layout.chunks.size(); ++i) {
        const PngChunk& chunk = layout.chunks[i];
        std::memcpy(unknown[i].name, chunk.name, 5);
        // libpng copies the data; its record only lacks the const.
        unknown[i].data = const_cast<png_byte*>(chunk.data->data());
        unknown[i].size = chunk.data->size();
        unknown[i].location = PNG_HAVE_IHDR;
        names.insert(names.end(), chunk.name, chunk.name + 5);
    }
    PngError error{};
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error, OnPngError, OnPngWarning);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        *reason = "cannot start the PNG writer";
        return false;
    }
    const bool ok = WriteRows(png, info, file, layout, std::clamp(level, 0, 9), rows, &unknown, &names);
    png_destroy_write_struct(&png, &info);
    if (!ok) {
        *reason = std::string("PNG writer: ") + error.message;
    }
    return ok;
}

}  // namespace hdrconvert
