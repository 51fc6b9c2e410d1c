#include "ImageOutput.h"

#include <png.h>

#include <cerrno>
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
// setjmp exists before it.
bool WritePngRows(png_structp png, png_infop info, FILE* file, const RowSource& rows, uint8_t* row, int width,
                  int height, int level, bool yuv)
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
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (!yuv) {
        // The codes are sRGB-encoded BT.709 (scaled to the panel's peak, which
        // a viewer shows as its own white).
        png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    }
    png_write_info(png, info);
    for (int y = 0; y < height; ++y) {
        png_write_row(png, const_cast<png_bytep>(rows(y, row)));
    }
    png_write_end(png, info);
    return true;
}

bool WritePng(FILE* file, const RowSource& rows, uint8_t* row, int width, int height, int level, bool yuv,
              std::string* reason)
{
    PngError error{};
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error, OnPngError, OnPngWarning);
    if (png == nullptr) {
        *reason = "cannot start the PNG writer";
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        *reason = "cannot start the PNG writer";
        return false;
    }
    const bool ok = WritePngRows(png, info, file, rows, row, width, height, level, yuv);
    png_destroy_write_struct(&png, &info);
    if (!ok) {
        *reason = std::string("PNG writer: ") + error.message;
    }
    return ok;
}

}  // namespace

const char* OutputExtension(OutputFormat format)
{
    switch (format) {
    case OutputFormat::Raw:
        return ".rgba";
    case OutputFormat::Avif:
        return ".avif";
    case OutputFormat::Png:
    case OutputFormat::PqPng:
        break;
    }
    return ".png";
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
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        *reason = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    const size_t stride = static_cast<size_t>(width) * 4;
    std::vector<uint8_t> row(stride);
    bool ok = true;
    if (format == OutputFormat::Raw) {
        for (int y = 0; y < height && ok; ++y) {
            if (std::fwrite(rows(y, row.data()), 1, stride, file) != stride) {
                *reason = "cannot write " + path + ": " + std::strerror(errno);
                ok = false;
            }
        }
    } else {
        const int level = pngLevel < 0 ? 0 : pngLevel > 9 ? 9 : pngLevel;
        ok = WritePng(file, rows, row.data(), width, height, level, yuv, reason);
    }
    if (std::fclose(file) != 0 && ok) {
        *reason = "cannot write " + path + ": " + std::strerror(errno);
        ok = false;
    }
    if (!ok) {
        std::remove(path.c_str());
    }
    return ok;
}

}  // namespace hdrconvert
