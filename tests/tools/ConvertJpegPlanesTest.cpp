// Decoding JPEG codestreams into full-size Y, U, V planes, and the encoders
// the sample maker uses.
#include "JpegPlanes.h"

#include <gtest/gtest.h>

#include <cstdio>  // jpeglib.h needs FILE
#include <cstdlib>
#include <jpeglib.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using hdrconvert::ChromaSampling;
using hdrconvert::YuvPlanes;

// A smooth colour picture, interleaved RGB.
std::vector<uint8_t> Gradient(int w, int h)
{
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            uint8_t* p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
            p[0] = static_cast<uint8_t>(40 + 170 * x / (w - 1));
            p[1] = static_cast<uint8_t>(200 - 150 * y / (h - 1));
            p[2] = 120;
        }
    }
    return rgb;
}

// A JPEG in a given colour space, written with libjpeg directly.
std::vector<uint8_t> EncodeIn(J_COLOR_SPACE in, J_COLOR_SPACE stored, int components, int w, int h)
{
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&c, &buffer, &size);
    c.image_width = w;
    c.image_height = h;
    c.input_components = components;
    c.in_color_space = in;
    jpeg_set_defaults(&c);
    jpeg_set_colorspace(&c, stored);
    jpeg_start_compress(&c, TRUE);
    std::vector<uint8_t> row(static_cast<size_t>(w) * components);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w * components; ++x) {
            row[x] = static_cast<uint8_t>((x * 7 + y * 3) & 0xFF);
        }
        JSAMPROW r = row.data();
        jpeg_write_scanlines(&c, &r, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::vector<uint8_t> bytes(buffer, buffer + size);
    std::free(buffer);
    return bytes;
}

TEST(ConvertJpegPlanes, GreyGetsNeutralChromaAtAnyWidth)
{
    for (int w : {1, 37, 403}) {
        const int h = 23;
        std::vector<uint8_t> grey(static_cast<size_t>(w) * h);
        for (size_t i = 0; i < grey.size(); ++i) {
            grey[i] = static_cast<uint8_t>(i % 200 + 20);
        }
        const std::vector<uint8_t> jpeg = hdrconvert::EncodeGreyJpeg(grey.data(), w, h, 100);
        ASSERT_FALSE(jpeg.empty());
        YuvPlanes p;
        std::string reason;
        ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &p, &reason)) << reason;
        EXPECT_EQ(p.width, w);
        EXPECT_EQ(p.height, h);
        EXPECT_EQ(p.components, 1);
        ASSERT_EQ(p.y.size(), grey.size());
        for (size_t i = 0; i < grey.size(); ++i) {
            EXPECT_EQ(p.u[i], 128);
            EXPECT_EQ(p.v[i], 128);
        }
    }
}

// 4:2:0 and 4:4:4 colour pictures decode to full-size planes that match the
// full-range BT.601 conversion of the input closely.
TEST(ConvertJpegPlanes, ColourPlanesAreFullSizeFullRangeYcbcr)
{
    for (ChromaSampling sampling : {ChromaSampling::Yuv420, ChromaSampling::Yuv444}) {
        const int w = 41;  // odd, not a multiple of 4
        const int h = 17;
        const std::vector<uint8_t> rgb = Gradient(w, h);
        const std::vector<uint8_t> jpeg = hdrconvert::EncodeRgbJpeg(rgb.data(), w, h, 100, sampling);
        YuvPlanes p;
        std::string reason;
        ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &p, &reason)) << reason;
        EXPECT_EQ(p.width, w);
        EXPECT_EQ(p.height, h);
        EXPECT_EQ(p.components, 3);
        int worst = 0;
        for (int i = 0; i < w * h; ++i) {
            const double r = rgb[3 * i], g = rgb[3 * i + 1], b = rgb[3 * i + 2];
            const double y = 0.299 * r + 0.587 * g + 0.114 * b;
            const double u = -0.168736 * r - 0.331264 * g + 0.5 * b + 128;
            const double v = 0.5 * r - 0.418688 * g - 0.081312 * b + 128;
            worst = std::max(worst, static_cast<int>(std::lround(std::fabs(p.y[i] - y))));
            worst = std::max(worst, static_cast<int>(std::lround(std::fabs(p.u[i] - u))));
            worst = std::max(worst, static_cast<int>(std::lround(std::fabs(p.v[i] - v))));
        }
        EXPECT_LE(worst, 4) << (sampling == ChromaSampling::Yuv420 ? "4:2:0" : "4:4:4");
    }
}

TEST(ConvertJpegPlanes, YuvEncoderRoundTrips)
{
    YuvPlanes in;
    in.width = 30;
    in.height = 20;
    for (int i = 0; i < 600; ++i) {
        in.y.push_back(static_cast<uint8_t>(60 + i % 100));
        in.u.push_back(110);
        in.v.push_back(150);
    }
    const std::vector<uint8_t> jpeg = hdrconvert::EncodeYuvJpeg(in, 100, ChromaSampling::Yuv444);
    YuvPlanes out;
    std::string reason;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &out, &reason)) << reason;
    for (int i = 0; i < 600; ++i) {
        EXPECT_NEAR(out.u[i], 110, 2);
        EXPECT_NEAR(out.v[i], 150, 2);
    }
}

// An RGB-coded JPEG (no YCbCr transform) is converted to YCbCr here.
TEST(ConvertJpegPlanes, RgbCodedJpegIsConverted)
{
    const std::vector<uint8_t> jpeg = EncodeIn(JCS_RGB, JCS_RGB, 3, 16, 8);
    YuvPlanes p;
    std::string reason;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &p, &reason)) << reason;
    EXPECT_EQ(p.width, 16);
    EXPECT_EQ(p.components, 3);
}

TEST(ConvertJpegPlanes, CmykIsRefused)
{
    const std::vector<uint8_t> jpeg = EncodeIn(JCS_CMYK, JCS_CMYK, 4, 16, 8);
    YuvPlanes p;
    std::string reason;
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &p, &reason));
    EXPECT_NE(reason.find("CMYK"), std::string::npos) << reason;
    const std::vector<uint8_t> ycck = EncodeIn(JCS_CMYK, JCS_YCCK, 4, 16, 8);
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(ycck.data(), ycck.size(), &p, &reason));
    EXPECT_NE(reason.find("CMYK"), std::string::npos) << reason;
}

TEST(ConvertJpegPlanes, TruncatedAndCorruptDataAreRefused)
{
    const std::vector<uint8_t> rgb = Gradient(64, 64);
    const std::vector<uint8_t> jpeg = hdrconvert::EncodeRgbJpeg(rgb.data(), 64, 64, 90);
    YuvPlanes p;
    std::string reason;
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size() * 2 / 3, &p, &reason));
    EXPECT_EQ(reason, "truncated JPEG data");
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(jpeg.data(), 3, &p, &reason));
    EXPECT_FALSE(reason.empty());
    const std::vector<uint8_t> text{'n', 'o', 't', ' ', 'j', 'p', 'e', 'g'};
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(text.data(), text.size(), &p, &reason));
    EXPECT_EQ(reason, "not a JPEG codestream");
    // A table marker inside the entropy-coded data of a noisy picture (whose
    // coded data is most of the file).
    std::vector<uint8_t> noise(64 * 64 * 3);
    for (size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
    }
    std::vector<uint8_t> broken = hdrconvert::EncodeRgbJpeg(noise.data(), 64, 64, 90);
    broken[broken.size() * 3 / 4] = 0xFF;
    broken[broken.size() * 3 / 4 + 1] = 0xC4;
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(broken.data(), broken.size(), &p, &reason));
    EXPECT_NE(reason.find("JPEG"), std::string::npos) << reason;
}

TEST(ConvertJpegPlanes, HeaderGivesTheSize)
{
    const std::vector<uint8_t> rgb = Gradient(33, 21);
    const std::vector<uint8_t> jpeg = hdrconvert::EncodeRgbJpeg(rgb.data(), 33, 21, 90);
    int w = 0;
    int h = 0;
    std::string reason;
    ASSERT_TRUE(hdrconvert::ReadJpegHeader(jpeg.data(), jpeg.size(), &w, &h, &reason)) << reason;
    EXPECT_EQ(w, 33);
    EXPECT_EQ(h, 21);
}

}  // namespace
