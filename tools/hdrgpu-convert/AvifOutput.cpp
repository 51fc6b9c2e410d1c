#include "HdrOutput.h"

#include "OutputFile.h"

#include <avif/avif.h>

#include <cstdio>
#include <memory>

namespace hdrconvert {

namespace {

struct ImageDeleter {
    void operator()(avifImage* p) const { avifImageDestroy(p); }
};
struct EncoderDeleter {
    void operator()(avifEncoder* p) const { avifEncoderDestroy(p); }
};
struct RgbPixels {
    avifRGBImage rgb;
    bool allocated = false;
    ~RgbPixels()
    {
        if (allocated) {
            avifRGBImageFreePixels(&rgb);
        }
    }
};
struct OutputData {
    avifRWData data = AVIF_DATA_EMPTY;
    ~OutputData() { avifRWDataFree(&data); }
};

}  // namespace

std::string AvifEncoderName()
{
    const char* name = avifCodecName(AVIF_CODEC_CHOICE_AUTO, AVIF_CODEC_FLAG_CAN_ENCODE);
    return name != nullptr ? name : "";
}

int AvifEncoderSpeed()
{
    return AVIF_SPEED_FASTEST;
}

bool WritePqAvif(const std::string& path, const PanelPicture& picture, const PanelModel& panel, HdrWriteInfo* info,
                 std::string* reason)
{
    if (picture.rgba == nullptr || picture.width < 1 || picture.height < 1) {
        *reason = "no picture to write";
        return false;
    }
    if (AvifEncoderName().empty()) {
        *reason = "libavif has no AV1 encoder";
        return false;
    }
    HdrWriteInfo written;
    written.cicp = CicpFor(picture.primaries);
    const size_t pixels = static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height);
    written.levels = MeasureLightLevels(panel, picture.rgba, pixels);

    std::unique_ptr<avifImage, ImageDeleter> image(avifImageCreate(
        static_cast<uint32_t>(picture.width), static_cast<uint32_t>(picture.height), 10, AVIF_PIXEL_FORMAT_YUV444));
    if (!image) {
        *reason = "AVIF: out of memory";
        return false;
    }
    image->colorPrimaries = written.cicp.colourPrimaries;
    image->transferCharacteristics = written.cicp.transferCharacteristics;
    image->matrixCoefficients = written.cicp.matrixCoefficients;
    image->yuvRange = written.cicp.fullRange != 0 ? AVIF_RANGE_FULL : AVIF_RANGE_LIMITED;

    RgbPixels rgb;
    avifRGBImageSetDefaults(&rgb.rgb, image.get());
    rgb.rgb.format = AVIF_RGB_FORMAT_RGB;
    rgb.rgb.depth = 10;
    avifRGBImageAllocatePixels(&rgb.rgb);
    rgb.allocated = true;
    if (rgb.rgb.pixels == nullptr) {
        *reason = "AVIF: out of memory";
        return false;
    }
    for (int y = 0; y < picture.height; ++y) {
        const uint8_t* src = picture.rgba + static_cast<size_t>(y) * static_cast<size_t>(picture.width) * 4;
        uint16_t* dst = reinterpret_cast<uint16_t*>(rgb.rgb.pixels + static_cast<size_t>(y) * rgb.rgb.rowBytes);
        for (int x = 0; x < picture.width; ++x, src += 4) {
            *dst++ = panel.Pq10(src[0]);
            *dst++ = panel.Pq10(src[1]);
            *dst++ = panel.Pq10(src[2]);
        }
    }
    avifResult result = avifImageRGBToYUV(image.get(), &rgb.rgb);
    if (result != AVIF_RESULT_OK) {
        *reason = std::string("AVIF: ") + avifResultToString(result);
        return false;
    }

    std::unique_ptr<avifEncoder, EncoderDeleter> encoder(avifEncoderCreate());
    if (!encoder) {
        *reason = "AVIF: out of memory";
        return false;
    }
    encoder->codecChoice = AVIF_CODEC_CHOICE_AUTO;
    encoder->speed = AvifEncoderSpeed();
    encoder->maxThreads = 2;
    encoder->minQuantizer = kAvifQuantizer;
    encoder->maxQuantizer = kAvifQuantizer;
    OutputData output;
    result = avifEncoderWrite(encoder.get(), image.get(), &output.data);
    if (result != AVIF_RESULT_OK) {
        *reason = std::string("AVIF encoder: ") + avifResultToString(result);
        if (encoder->diag.error[0] != '\0') {
            *reason += std::string(": ") + encoder->diag.error;
        }
        return false;
    }

    const bool ok = WriteOutputFile(
        path,
        [&](FILE* file, std::string* why) {
            if (std::fwrite(output.data.data, 1, output.data.size, file) != output.data.size) {
                *why = WriteFailure(path);
                return false;
            }
            return true;
        },
        reason);
    if (!ok) {
        return false;
    }
    if (info != nullptr) {
        *info = written;
    }
    return true;
}

}  // namespace hdrconvert
