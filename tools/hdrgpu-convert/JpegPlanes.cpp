#include "JpegPlanes.h"

#include "DeclaredSize.h"

#include <csetjmp>
#include <cstdio>  // jpeglib.h needs FILE
#include <cstdlib>
#include <cstring>

#include <jerror.h>
#include <jpeglib.h>

#if defined(__x86_64__) || defined(__i386__)
#include <tmmintrin.h>
#endif

namespace hdrconvert {

namespace {

// Larger pictures are refused rather than decoded (the output surface's byte
// size must also fit 32 bits).
constexpr long long kMaxPixels = 256LL * 1024 * 1024;

// libjpeg reports errors through a callback that must not return: it jumps
// back to the setjmp of the call in progress with the formatted message.
struct ErrorManager {
    jpeg_error_mgr pub;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    bool truncated;
};

[[noreturn]] void OnError(j_common_ptr cinfo)
{
    ErrorManager* e = reinterpret_cast<ErrorManager*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, e->message);
    std::longjmp(e->jump, 1);
}

// Warnings that mean the picture cannot be right are errors here: libjpeg
// would fill the missing part with grey and go on. Other warnings (e.g.
// extraneous bytes before a marker) are common in real files and harmless.
void OnMessage(j_common_ptr cinfo, int level)
{
    if (level >= 0) {
        return;  // trace messages
    }
    ErrorManager* e = reinterpret_cast<ErrorManager*>(cinfo->err);
    switch (cinfo->err->msg_code) {
    case JWRN_JPEG_EOF:
        e->truncated = true;
        std::snprintf(e->message, sizeof e->message, "truncated JPEG data");
        std::longjmp(e->jump, 1);
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_MUST_RESYNC:
    case JWRN_NOT_SEQUENTIAL:
    case JWRN_BOGUS_PROGRESSION:
        (*cinfo->err->format_message)(cinfo, e->message);
        std::longjmp(e->jump, 1);
    default:
        break;
    }
}

void InstallErrorManager(ErrorManager* e)
{
    jpeg_std_error(&e->pub);
    e->pub.error_exit = OnError;
    e->pub.emit_message = OnMessage;
    e->message[0] = '\0';
    e->truncated = false;
}

uint8_t ClampToByte(double v)
{
    if (v <= 0.0) {
        return 0;
    }
    if (v >= 255.0) {
        return 255;
    }
    // Half up by truncation: the converter's outputs are defined by it.
    return static_cast<uint8_t>(v + 0.5);  // NOLINT(bugprone-incorrect-roundings)
}

// One decoded row of interleaved Y, Cb, Cr into three planes (the rows never
// overlap). Byte by byte it costs more than the decoding itself on a big
// picture; where the CPU has SSSE3, byte shuffles split 16 pixels at a time.
void SplitRowBytes(const JSAMPLE* __restrict in, uint8_t* __restrict y, uint8_t* __restrict u, uint8_t* __restrict v,
                   size_t first, size_t width)
{
    for (size_t x = first; x < width; ++x) {
        y[x] = in[3 * x];
        u[x] = in[3 * x + 1];
        v[x] = in[3 * x + 2];
    }
}

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("ssse3"))) void SplitRowSsse3(const JSAMPLE* __restrict in, uint8_t* __restrict y,
                                                    uint8_t* __restrict u, uint8_t* __restrict v, size_t width)
{
    // 48 bytes a, b, c hold 16 pixels; each plane's 16 bytes come from all
    // three (-1 picks nothing).
    const __m128i ya = _mm_setr_epi8(0, 3, 6, 9, 12, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i yb = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 2, 5, 8, 11, 14, -1, -1, -1, -1, -1);
    const __m128i yc = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1, 4, 7, 10, 13);
    const __m128i ua = _mm_setr_epi8(1, 4, 7, 10, 13, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i ub = _mm_setr_epi8(-1, -1, -1, -1, -1, 0, 3, 6, 9, 12, 15, -1, -1, -1, -1, -1);
    const __m128i uc = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 2, 5, 8, 11, 14);
    const __m128i va = _mm_setr_epi8(2, 5, 8, 11, 14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i vb = _mm_setr_epi8(-1, -1, -1, -1, -1, 1, 4, 7, 10, 13, -1, -1, -1, -1, -1, -1);
    const __m128i vc = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 3, 6, 9, 12, 15);
    size_t x = 0;
    for (; x + 16 <= width; x += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 3 * x));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 3 * x + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 3 * x + 32));
        _mm_storeu_si128(
            reinterpret_cast<__m128i*>(y + x),
            _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, ya), _mm_shuffle_epi8(b, yb)), _mm_shuffle_epi8(c, yc)));
        _mm_storeu_si128(
            reinterpret_cast<__m128i*>(u + x),
            _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, ua), _mm_shuffle_epi8(b, ub)), _mm_shuffle_epi8(c, uc)));
        _mm_storeu_si128(
            reinterpret_cast<__m128i*>(v + x),
            _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, va), _mm_shuffle_epi8(b, vb)), _mm_shuffle_epi8(c, vc)));
    }
    SplitRowBytes(in, y, u, v, x, width);
}
#endif

void SplitRow(const JSAMPLE* in, uint8_t* y, uint8_t* u, uint8_t* v, size_t width)
{
#if defined(__x86_64__) || defined(__i386__)
    static const bool hasSsse3 = (__builtin_cpu_init(), __builtin_cpu_supports("ssse3") != 0);
    if (hasSsse3) {
        SplitRowSsse3(in, y, u, v, width);
        return;
    }
#endif
    SplitRowBytes(in, y, u, v, 0, width);
}

// Why a colour space is refused; empty when it is decoded.
std::string RefusedColourSpace(const jpeg_decompress_struct& cinfo)
{
    switch (cinfo.jpeg_color_space) {
    case JCS_GRAYSCALE:
        return cinfo.num_components == 1 ? "" : "unsupported JPEG component layout";
    case JCS_YCbCr:
    case JCS_RGB:
        return cinfo.num_components == 3 ? "" : "unsupported JPEG component layout";
    case JCS_CMYK:
        return "CMYK JPEG, unsupported";
    case JCS_YCCK:
        return "YCCK (CMYK) JPEG, unsupported";
    default:
        return "unsupported JPEG colour space (" + std::to_string(cinfo.num_components) + " components)";
    }
}

std::string SizeRefusal(const jpeg_decompress_struct& cinfo, size_t size)
{
    const long long pixels = static_cast<long long>(cinfo.image_width) * cinfo.image_height;
    if (cinfo.image_width < 1 || cinfo.image_height < 1) {
        return "JPEG image has no pixels";
    }
    if (pixels > kMaxPixels) {
        return "image too large (" + std::to_string(cinfo.image_width) + "x" + std::to_string(cinfo.image_height) + ")";
    }
    // Nothing is allocated for a size the data cannot hold. Arithmetic coding
    // has no such floor; only the pixel limits bound it.
    const uint64_t least = MinimumHuffmanCodestreamBytes(cinfo.image_width, cinfo.image_height);
    if (!cinfo.arith_code && size < least) {
        return "JPEG data too small for its declared size (" + std::to_string(cinfo.image_width) + "x" +
               std::to_string(cinfo.image_height) + " needs at least " + std::to_string(least) + " bytes, has " +
               std::to_string(size) + ")";
    }
    return "";
}

// Reads the header and says why the image is refused ("" when it is not).
// Only under the caller's setjmp: libjpeg's errors jump out of here.
void ReadCheckedHeader(jpeg_decompress_struct* cinfo, const uint8_t* data, size_t size, std::string* refusal)
{
    jpeg_create_decompress(cinfo);
    jpeg_mem_src(cinfo, data, static_cast<unsigned long>(size));
    jpeg_read_header(cinfo, TRUE);
    *refusal = RefusedColourSpace(*cinfo);
    if (refusal->empty()) {
        *refusal = SizeRefusal(*cinfo, size);
    }
}

// The decoding itself. Every object that lives across the setjmp exists
// before it, so the jump skips no destructor.
bool Decode(jpeg_decompress_struct* cinfo, ErrorManager* err, const uint8_t* data, size_t size, PlaneRowSink* sink,
            std::string* refusal)
{
    if (setjmp(err->jump) != 0) {
        return false;
    }
    ReadCheckedHeader(cinfo, data, size, refusal);
    if (!refusal->empty()) {
        return false;
    }
    const J_COLOR_SPACE source = cinfo->jpeg_color_space;
    cinfo->out_color_space = source == JCS_GRAYSCALE ? JCS_GRAYSCALE : source == JCS_RGB ? JCS_RGB : JCS_YCbCr;
    cinfo->dct_method = JDCT_ISLOW;
    cinfo->do_fancy_upsampling = TRUE;
    jpeg_start_decompress(cinfo);

    const size_t width = cinfo->output_width;
    const size_t height = cinfo->output_height;
    if (!sink->Start(static_cast<int>(width), static_cast<int>(height), cinfo->num_components, refusal)) {
        return false;
    }

    const int channels = cinfo->output_components;
    const int rowsAtOnce = cinfo->rec_outbuf_height > 0 ? cinfo->rec_outbuf_height : 1;
    // Freed with the decompressor.
    JSAMPARRAY rows =
        (*cinfo->mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(cinfo), JPOOL_IMAGE,
                                    static_cast<JDIMENSION>(width * channels), static_cast<JDIMENSION>(rowsAtOnce));
    while (cinfo->output_scanline < cinfo->output_height) {
        const size_t first = cinfo->output_scanline;
        const JDIMENSION got = jpeg_read_scanlines(cinfo, rows, static_cast<JDIMENSION>(rowsAtOnce));
        for (JDIMENSION r = 0; r < got; ++r) {
            const JSAMPLE* in = rows[r];
            uint8_t* y = nullptr;
            uint8_t* u = nullptr;
            uint8_t* v = nullptr;
            sink->Row(static_cast<int>(first + r), &y, &u, &v);
            if (channels == 1) {
                std::memcpy(y, in, width);
                std::memset(u, 128, width);
                std::memset(v, 128, width);
            } else if (cinfo->out_color_space == JCS_YCbCr) {
                SplitRow(in, y, u, v, width);
            } else {
                // Full-range BT.601, as JFIF defines YCbCr.
                for (size_t x = 0; x < width; ++x) {
                    const double r8 = in[3 * x];
                    const double g8 = in[3 * x + 1];
                    const double b8 = in[3 * x + 2];
                    y[x] = ClampToByte(0.299 * r8 + 0.587 * g8 + 0.114 * b8);
                    u[x] = ClampToByte(-0.168735892 * r8 - 0.331264108 * g8 + 0.5 * b8 + 128.0);
                    v[x] = ClampToByte(0.5 * r8 - 0.418687589 * g8 - 0.081312411 * b8 + 128.0);
                }
            }
        }
        if (got == 0) {
            std::snprintf(err->message, sizeof err->message, "JPEG decoder made no progress");
            return false;
        }
    }
    jpeg_finish_decompress(cinfo);
    return true;
}

bool Header(jpeg_decompress_struct* cinfo, ErrorManager* err, const uint8_t* data, size_t size, int* width, int* height,
            std::string* refusal)
{
    if (setjmp(err->jump) != 0) {
        return false;
    }
    ReadCheckedHeader(cinfo, data, size, refusal);
    *width = static_cast<int>(cinfo->image_width);
    *height = static_cast<int>(cinfo->image_height);
    return refusal->empty();
}

std::string DecoderReason(const ErrorManager& err, const std::string& refusal)
{
    if (!refusal.empty()) {
        return refusal;
    }
    if (err.truncated) {
        return "truncated JPEG data";
    }
    if (err.message[0] != '\0') {
        // libjpeg's own corruption warnings already say so.
        const std::string message = err.message;
        const std::string prefix = "Corrupt JPEG data: ";
        return "corrupt JPEG data: " + (message.rfind(prefix, 0) == 0 ? message.substr(prefix.size()) : message);
    }
    return "corrupt JPEG data";
}

bool StartsLikeJpeg(const uint8_t* data, size_t size)
{
    return data != nullptr && size >= 4 && data[0] == 0xFF && data[1] == 0xD8;
}

// Compression with the error jump, as for decoding. *buffer is malloc'ed by
// the memory destination and freed by the caller on both outcomes.
bool Encode(jpeg_compress_struct* cinfo, ErrorManager* err, unsigned char** buffer, unsigned long* bufferSize,
            const uint8_t* pixels, int width, int height, int components, J_COLOR_SPACE space, int quality,
            ChromaSampling sampling)
{
    if (setjmp(err->jump) != 0) {
        return false;
    }
    jpeg_create_compress(cinfo);
    jpeg_mem_dest(cinfo, buffer, bufferSize);
    cinfo->image_width = static_cast<JDIMENSION>(width);
    cinfo->image_height = static_cast<JDIMENSION>(height);
    cinfo->input_components = components;
    cinfo->in_color_space = space;
    jpeg_set_defaults(cinfo);
    jpeg_set_quality(cinfo, quality, TRUE);
    cinfo->dct_method = JDCT_ISLOW;
    if (components == 3) {
        const int factor = sampling == ChromaSampling::Yuv420 ? 2 : 1;
        cinfo->comp_info[0].h_samp_factor = factor;
        cinfo->comp_info[0].v_samp_factor = factor;
        for (int c = 1; c < 3; ++c) {
            cinfo->comp_info[c].h_samp_factor = 1;
            cinfo->comp_info[c].v_samp_factor = 1;
        }
    }
    jpeg_start_compress(cinfo, TRUE);
    const size_t stride = static_cast<size_t>(width) * components;
    while (cinfo->next_scanline < cinfo->image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pixels + cinfo->next_scanline * stride);
        jpeg_write_scanlines(cinfo, &row, 1);
    }
    jpeg_finish_compress(cinfo);
    return true;
}

std::vector<uint8_t> EncodeInterleaved(const uint8_t* pixels, int width, int height, int components,
                                       J_COLOR_SPACE space, int quality, ChromaSampling sampling)
{
    std::vector<uint8_t> result;
    if (pixels == nullptr || width < 1 || height < 1 || width > 65500 || height > 65500) {
        return result;
    }
    jpeg_compress_struct cinfo;
    ErrorManager err;
    std::memset(&cinfo, 0, sizeof cinfo);
    InstallErrorManager(&err);
    cinfo.err = &err.pub;
    unsigned char* buffer = nullptr;
    unsigned long bufferSize = 0;
    const bool ok = Encode(&cinfo, &err, &buffer, &bufferSize, pixels, width, height, components, space,
                           quality < 1     ? 1
                           : quality > 100 ? 100
                                           : quality,
                           sampling);
    jpeg_destroy_compress(&cinfo);
    if (ok && buffer != nullptr) {
        result.assign(buffer, buffer + bufferSize);
    }
    std::free(buffer);
    return result;
}

}  // namespace

bool ReadJpegHeader(const uint8_t* data, size_t size, int* width, int* height, std::string* reason)
{
    if (!StartsLikeJpeg(data, size)) {
        *reason = "not a JPEG codestream";
        return false;
    }
    jpeg_decompress_struct cinfo;
    ErrorManager err;
    std::memset(&cinfo, 0, sizeof cinfo);
    InstallErrorManager(&err);
    cinfo.err = &err.pub;
    std::string refusal;
    int w = 0;
    int h = 0;
    const bool ok = Header(&cinfo, &err, data, size, &w, &h, &refusal);
    jpeg_destroy_decompress(&cinfo);
    if (!ok) {
        *reason = DecoderReason(err, refusal);
        return false;
    }
    *width = w;
    *height = h;
    return true;
}

bool DecodeJpegRows(const uint8_t* data, size_t size, PlaneRowSink* sink, std::string* reason)
{
    if (!StartsLikeJpeg(data, size)) {
        *reason = "not a JPEG codestream";
        return false;
    }
    jpeg_decompress_struct cinfo;
    ErrorManager err;
    std::memset(&cinfo, 0, sizeof cinfo);
    InstallErrorManager(&err);
    cinfo.err = &err.pub;
    std::string refusal;
    const bool ok = Decode(&cinfo, &err, data, size, sink, &refusal);
    jpeg_destroy_decompress(&cinfo);
    if (!ok) {
        *reason = DecoderReason(err, refusal);
        return false;
    }
    return true;
}

bool DecodeJpegPlanesReusing(const uint8_t* data, size_t size, YuvPlanes* planes, std::string* reason)
{
    // Rows land in the planes' own vectors; resizing to a size they already
    // hold keeps their storage (and skips zero-filling it again).
    class VectorSink : public PlaneRowSink {
    public:
        explicit VectorSink(YuvPlanes* p) : p_(p) {}
        bool Start(int width, int height, int components, std::string*) override
        {
            const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
            p_->width = width;
            p_->height = height;
            p_->components = components;
            p_->y.resize(pixels);
            p_->u.resize(pixels);
            p_->v.resize(pixels);
            return true;
        }
        void Row(int row, uint8_t** y, uint8_t** u, uint8_t** v) override
        {
            const size_t base = static_cast<size_t>(row) * static_cast<size_t>(p_->width);
            *y = p_->y.data() + base;
            *u = p_->u.data() + base;
            *v = p_->v.data() + base;
        }

    private:
        YuvPlanes* p_;
    };
    VectorSink sink(planes);
    return DecodeJpegRows(data, size, &sink, reason);
}

bool DecodeJpegPlanes(const uint8_t* data, size_t size, YuvPlanes* out, std::string* reason)
{
    YuvPlanes planes;
    if (!DecodeJpegPlanesReusing(data, size, &planes, reason)) {
        return false;
    }
    *out = std::move(planes);
    return true;
}

std::vector<uint8_t> EncodeRgbJpeg(const uint8_t* rgb, int width, int height, int quality, ChromaSampling sampling)
{
    return EncodeInterleaved(rgb, width, height, 3, JCS_RGB, quality, sampling);
}

std::vector<uint8_t> EncodeGreyJpeg(const uint8_t* grey, int width, int height, int quality)
{
    return EncodeInterleaved(grey, width, height, 1, JCS_GRAYSCALE, quality, ChromaSampling::Yuv444);
}

std::vector<uint8_t> EncodeYuvJpeg(const YuvPlanes& planes, int quality, ChromaSampling sampling)
{
    const size_t pixels = static_cast<size_t>(planes.width) * static_cast<size_t>(planes.height);
    if (planes.width < 1 || planes.height < 1 || planes.y.size() != pixels || planes.u.size() != pixels ||
        planes.v.size() != pixels) {
        return {};
    }
    std::vector<uint8_t> interleaved(pixels * 3);
    for (size_t i = 0; i < pixels; ++i) {
        interleaved[3 * i] = planes.y[i];
        interleaved[3 * i + 1] = planes.u[i];
        interleaved[3 * i + 2] = planes.v[i];
    }
    return EncodeInterleaved(interleaved.data(), planes.width, planes.height, 3, JCS_YCbCr, quality, sampling);
}

}  // namespace hdrconvert
