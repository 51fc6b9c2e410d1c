// The generation engine's input upload. Direct mode: the planes go
// straight from the host's memory into their textures. Streaming mode: the
// host writes each plane into a mapped pixel-unpack buffer between
// UpdateDataBegin and UpdateDataEnd; a fence issued after the buffers are
// prepared is waited on before the first plane of the next picture.
// Either way the picture's average level (APL) comes from the main luma.
// The direct mode's textures can be given storage ahead of the first picture
// (ReserveTextures), so that its intake only copies.
#define HDR_LOG_FILE "HdrGenerate.cpp"

#include "HdrCommon.h"
#include "HdrGenerate.h"
#include "HdrPictureLevel.h"
#include "HdrPlaneLimits.h"
#include "HdrThreadContext.h"

namespace {

// w x h as the 32-bit signed product the upload works with, wrapping like
// the hardware's arithmetic instead of overflowing.
int32_t Product32(int32_t width, int32_t height)
{
    return static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
}

void SetSamplingParameters()
{
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

}  // namespace

// The plane's pointer and size as the stored metadata gives them.
DataInfo HdrGenerate::PlaneOf(int plane) const
{
    if (plane < GAINMAP_Y) {
        return {hdrInfo.mainImagePlanes[plane], hdrInfo.nMainImageWidth, hdrInfo.nMainImageHeight};
    }
    return {hdrInfo.gainMapPlanes[plane - GAINMAP_Y], hdrInfo.nGainMapWidth, hdrInfo.nGainMapHeight};
}

void HdrGenerate::InitTextures()
{
    HDR_LOG("HdrGenerate::InitTextures start");
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        glActiveTexture(GL_TEXTURE0 + plane);
        glGenTextures(1, &inputTextures[plane]);
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        if (hasTextureStorage) {
            const int* size = plane < GAINMAP_Y ? &textureSizes[0] : &textureSizes[2];
            glTexStorage2D(GL_TEXTURE_2D, 1, GL_R8, size[0], size[1]);
        }
        SetSamplingParameters();
    }
    HDR_LOG("HdrGenerate::InitTextures end");
}

void HdrGenerate::RenewInputTexture(int plane)
{
    glActiveTexture(GL_TEXTURE0 + plane);
    glDeleteTextures(1, &inputTextures[plane]);
    glGenTextures(1, &inputTextures[plane]);
    glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
    SetSamplingParameters();
    if (plane >= GAINMAP_U) {
        gainChroma.Forget(plane - GAINMAP_U);
    }
    if (plane >= GAINMAP_Y) {
        packedGain.Invalidate();
    }
}

void HdrGenerate::DropTextureReservation()
{
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        RenewInputTexture(plane);
    }
    hasTextureStorage = false;
}

int HdrGenerate::ReserveTextures(const int32_t sizes[4])
{
    HDR_LOG("HdrGenerate::ReserveTextures start");
    if (initOption.usePBO) {
        HDR_LOG("%d ERROR: the streaming mode's textures are sized by its upload buffers\n", __LINE__);
        return GPU_GENERATE_ERROR_CALL_ORDER;
    }
    HdrInfo requested{};
    requested.nMainImageWidth = sizes[0];
    requested.nMainImageHeight = sizes[1];
    requested.nGainMapWidth = sizes[2];
    requested.nGainMapHeight = sizes[3];
    if (!HdrPlaneSizesAccepted(requested)) {
        return GPU_GENERATE_ERROR_BAD_INPUT;
    }
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        // Always on a new texture: storage given once is immutable, and on
        // llvmpipe (Mesa 22.3) a texture that held an image before it was
        // given storage drew wrong pixels from it.
        RenewInputTexture(plane);
        const int32_t* size = plane < GAINMAP_Y ? &sizes[0] : &sizes[2];
        glTexStorage2D(GL_TEXTURE_2D, 1, GL_R8, size[0], size[1]);
    }
    if (packGainMaps && useSpecialisedPrograms && (sizes[2] != sizes[0] || sizes[3] != sizes[1])) {
        // Where gain maps are packed, their texture too, unless the gain map
        // has the main image's size and will likely be sampled texel for
        // texel.
        packedGain.Reserve(PACKED_GAIN_TEXTURE_UNIT, sizes[2], sizes[3]);
    }
    hasTextureStorage = true;
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        DropTextureReservation();
        packedGain.Release();
        return GPU_GENERATE_ERROR_GL;
    }
    for (int i = 0; i < 4; ++i) {
        textureSizes[i] = sizes[i];
    }
    HDR_LOG("HdrGenerate::ReserveTextures: main image %d x %d, gain map %d x %d", sizes[0], sizes[1], sizes[2],
            sizes[3]);
    HDR_LOG("HdrGenerate::ReserveTextures end");
    return GPU_GENERATE_SUCCESS;
}

void HdrGenerate::InitPBOTextures()
{
    // Logs the same lines as the direct mode's initialisation.
    HDR_LOG("HdrGenerate::InitTextures start");
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        glGenBuffers(1, &pixelBuffers[plane]);
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
        glGenTextures(1, &inputTextures[plane]);
        glActiveTexture(GL_TEXTURE0 + plane);
        glUniform1i(Uniform(plane), plane);  // sampler slots follow the planes
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        SetSamplingParameters();
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    }
    HDR_LOG("HdrGenerate::InitTextures end");
}

int32_t HdrGenerate::ComputeApl(const uint8_t* plane, int32_t available, int width, int height)
{
    int32_t count = Product32(width, height);
    if (count > available) {
        // Never read past what the plane holds.
        HDR_LOG("%d ERROR: APL over %d bytes, only %d available\n", __LINE__, count, available);
        count = available;
    }
    uint64_t sum = 0;
    int32_t level = 0;
    if (count >= 1 && plane != nullptr) {
        sum = SumOfBytes(plane, static_cast<size_t>(count));
        level = static_cast<int32_t>(static_cast<int64_t>(sum) / count);
    }
    HDR_LOG("Calculate APL = %d, apl = %llu, w = %d, h = %d", level, static_cast<unsigned long long>(sum), width,
            height);
    return level;
}

int HdrGenerate::UpdateTextures()
{
    HDR_LOG("HdrGenerate::UpdateTextures start");
    if (hdrInfo.nMainImageWidth < 1 || hdrInfo.nMainImageHeight < 1 || hdrInfo.nGainMapWidth < 1 ||
        hdrInfo.nGainMapHeight < 1) {
        HDR_LOG("%d ERROR: Input data's size is wrong\n", __LINE__);
        return GPU_GENERATE_ERROR_BAD_INPUT;
    }
    if (!HdrPlaneSizesAccepted(hdrInfo)) {
        return GPU_GENERATE_ERROR_BAD_INPUT;
    }
    if (initOption.usePBO) {
        // The planes reached their textures through UpdateDataEnd, and the
        // gain map was packed as they came in, judged by the metadata before
        // this one: this picture's may make the packed copy useless.
        if (packedGain.Current() && !GainMapWorthPacking(streamedSizes[GAINMAP_Y][0], streamedSizes[GAINMAP_Y][1])) {
            packedGain.Release();
        }
        // Prepare the buffers for the next picture.
        HDR_LOG("optimized !!!!!!!!!!!!!!!!!!!!!!!!\n");
        UpdatePBOs();
        // A buffer that could not be mapped leaves the host nowhere to write
        // the next picture: fail the intake rather than hand out a null.
        for (uint8_t* mapping : mappedPlanes) {
            if (mapping == nullptr) {
                HDR_LOG("%d ERROR: GL_error\n", __LINE__);
                return GPU_GENERATE_ERROR_GL;
            }
        }
    } else {
        // Until this picture's gain map is packed, the one packed before is stale.
        packedGain.Invalidate();
        for (const uint8_t* data : {hdrInfo.mainImagePlanes[0], hdrInfo.mainImagePlanes[1], hdrInfo.mainImagePlanes[2],
                                    hdrInfo.gainMapPlanes[0], hdrInfo.gainMapPlanes[1], hdrInfo.gainMapPlanes[2]}) {
            if (data == nullptr) {
                HDR_LOG("%d ERROR: Input date is nullptr\n", __LINE__);
                return GPU_GENERATE_ERROR_BAD_INPUT;
            }
        }
        const bool fitsReservation =
            hdrInfo.nMainImageWidth == textureSizes[0] && hdrInfo.nMainImageHeight == textureSizes[1] &&
            hdrInfo.nGainMapWidth == textureSizes[2] && hdrInfo.nGainMapHeight == textureSizes[3];
        if (hasTextureStorage && !fitsReservation) {
            HDR_LOG(
                "HdrGenerate::UpdateTextures: planes of %d x %d and %d x %d, reserved %d x %d and %d x %d: "
                "reservation dropped",
                hdrInfo.nMainImageWidth, hdrInfo.nMainImageHeight, hdrInfo.nGainMapWidth, hdrInfo.nGainMapHeight,
                textureSizes[0], textureSizes[1], textureSizes[2], textureSizes[3]);
            DropTextureReservation();
        }
        for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
            glActiveTexture(GL_TEXTURE0 + plane);
            glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
            const DataInfo& entry = planeTable[plane] = PlaneOf(plane);
            if (hasTextureStorage) {
                glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, entry.width, entry.height, GL_RED, GL_UNSIGNED_BYTE,
                                entry.data);
            } else {
                glTexImage2D(GL_TEXTURE_2D, 0, GL_RED, entry.width, entry.height, 0, GL_RED, GL_UNSIGNED_BYTE,
                             entry.data);
            }
            if (!GL_error_check()) {
                HDR_LOG("%d ERROR: GL_error\n", __LINE__);
                return GPU_GENERATE_ERROR_GL;
            }
            if (plane >= GAINMAP_U) {
                gainChroma.Note(plane - GAINMAP_U, entry.data,
                                static_cast<size_t>(entry.width) * static_cast<size_t>(entry.height));
            }
        }
        PackGainMap();
        const DataInfo& luma = planeTable[MAIN_Y];
        apl = ComputeApl(luma.data, Product32(luma.width, luma.height), luma.width, luma.height);
    }
    HDR_LOG("HdrGenerate::UpdateTextures end");
    return GPU_GENERATE_SUCCESS;
}

bool HdrGenerate::GainMapWorthPacking(int gainWidth, int gainHeight) const
{
    // Only a specialised program reads the packed texture, and only when the
    // gain map's chroma is not flat (flat chroma is not sampled at all). A
    // gain map sampled texel for texel is left in its planes: three nearest
    // fetches cost little more than one, and its packed copy would be as
    // large as the picture.
    GainMapVariant variant;
    variant.inputCurve = static_cast<int32_t>(hdrInfo.trfn);
    const bool filtered =
        !PlaneMapsOneToOne(gainWidth, gainHeight, hdrInfo.outputWidth, hdrInfo.outputHeight, hdrInfo.outputRotate);
    return packGainMaps && useSpecialisedPrograms && GainMapVariantIndex(variant) >= 0 && !gainChroma.Flat() &&
           filtered;
}

void HdrGenerate::PackGainMap()
{
    if (!GainMapWorthPacking(hdrInfo.nGainMapWidth, hdrInfo.nGainMapHeight)) {
        // A texture reserved for this picture goes before the draw, whose end
        // is the process's peak: 3 MiB for a phone's quarter-size gain map.
        packedGain.Release();
        return;
    }
    GLenum error = GL_NO_ERROR;
    if (!packedGain.Upload(PACKED_GAIN_TEXTURE_UNIT, hdrInfo.gainMapPlanes[0], hdrInfo.gainMapPlanes[1],
                           hdrInfo.gainMapPlanes[2], hdrInfo.nGainMapWidth, hdrInfo.nGainMapHeight, &error)) {
        // Not fatal: the draw samples the three planes instead.
        HDR_LOG("%d ERROR: packing the gain map's planes failed (GL error 0x%x); they are sampled apart\n", __LINE__,
                static_cast<unsigned>(error));
    }
}

void HdrGenerate::UpdatePBOs()
{
    HDR_LOG("HdrGenerate::UpdatePBOs start");
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        const DataInfo size = PlaneOf(plane);
        const int32_t width = size.width;
        const int32_t height = size.height;
        const int32_t bytes = Product32(width, height);

        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
        // A buffer of the right size is mapped again with its contents
        // invalidated rather than re-allocated: the driver may then keep its
        // storage, and the host does not fault in fresh pages every picture.
        if (bufferBytes[plane] != bytes) {
            glBufferData(GL_PIXEL_UNPACK_BUFFER, bytes, nullptr, GL_STREAM_DRAW);
            bufferBytes[plane] = bytes;
        } else if (mappedPlanes[plane] != nullptr) {
            glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER);  // what re-allocating would have done
        }
        glActiveTexture(GL_TEXTURE0 + plane);
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        // A texture already of this size keeps what it holds: it is the
        // picture just streamed, not yet drawn. Re-defining it from the new,
        // undefined buffer would lose it on drivers that do not recycle
        // buffer storage.
        if (streamedSizes[plane][0] != width || streamedSizes[plane][1] != height) {
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RED, width, height, 0, GL_RED, GL_UNSIGNED_BYTE, nullptr);
            if (plane >= GAINMAP_U) {
                gainChroma.Forget(plane - GAINMAP_U);
            }
            if (plane >= GAINMAP_Y) {
                packedGain.Invalidate();
            }
            streamedSizes[plane][0] = width;
            streamedSizes[plane][1] = height;
        }
        mappedPlanes[plane] = static_cast<uint8_t*>(
            glMapBufferRange(GL_PIXEL_UNPACK_BUFFER, 0, bytes, GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT));
        mappedBytes[plane] = mappedPlanes[plane] != nullptr ? bytes : 0;
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    }
    isAplPending = false;
    // The buffers now hold nothing the host wrote.
    streamedGainPlanes = 0;

    HDR_LOG("HdrGenerate::UpdatePBOs glFenceSync");
    if (!isPboIdle && uploadFence != nullptr) {
        glDeleteSync(uploadFence);  // replaced before anyone waited on it
    }
    uploadFence = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        ForgetMappings();
    }
    glFlush();
    isPboIdle = false;
    HDR_LOG("HdrGenerate::UpdatePBOs end");
}

// Some plane was not defined: hand out no buffer, so that the intake fails
// and no picture is drawn from it.
void HdrGenerate::ForgetMappings()
{
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
        if (mappedPlanes[plane] != nullptr) {
            glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER);
        }
        mappedPlanes[plane] = nullptr;
        mappedBytes[plane] = 0;
        streamedSizes[plane][0] = streamedSizes[plane][1] = 0;
        bufferBytes[plane] = 0;
    }
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
}

int HdrGenerate::UpdatePBOsFinished()
{
    HDR_LOG("HdrGenerate::UpdatePBOsFinished start");
    if (uploadFence == nullptr) {
        return GPU_GENERATE_SUCCESS;
    }
    int result = GPU_GENERATE_SUCCESS;
    switch (glClientWaitSync(uploadFence, GL_SYNC_FLUSH_COMMANDS_BIT, 1000000000ull)) {
    case GL_WAIT_FAILED:
        HDR_LOG("%d ERROR: UpdatePBOsFinished faild\n", __LINE__);
        result = GPU_GENERATE_ERROR_FENCE_WAIT;
        break;
    case GL_TIMEOUT_EXPIRED:
        HDR_LOG("%d ERROR: UpdatePBOsFinished timeout\n", __LINE__);
        result = GPU_GENERATE_ERROR_FENCE_TIMEOUT;
        break;
    case GL_ALREADY_SIGNALED:
    case GL_CONDITION_SATISFIED:
        HDR_LOG("UpdatePBOsFinished success\n");
        break;
    default:
        break;
    }
    // The handle is kept after deletion; isPboIdle guards against a second wait.
    glDeleteSync(uploadFence);
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
    }
    HDR_LOG("HdrGenerate::UpdatePBOsFinished end");
    return result;
}

bool HdrGenerate::UpdateDataBegin(int plane)
{
    if (plane < 0 || plane >= DATA_TYPE_COUNT) {
        HDR_LOG("%d ERROR: no such plane: %d\n", __LINE__, plane);
        return false;
    }
    const GLuint program = Program();
    if (program == 0) {
        return false;
    }
    if (!BindThreadContext()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return false;
    }
    glUseProgram(program);
    if (!isPboIdle) {
        if (UpdatePBOsFinished() != GPU_GENERATE_SUCCESS) {
            return false;  // the context stays bound
        }
        isPboIdle = true;
    }
    glActiveTexture(GL_TEXTURE0 + plane);
    glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
    currentPlane = plane;
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return false;
    }
    if (plane == MAIN_Y) {
        isAplPending = true;
    }
    return true;
}

bool HdrGenerate::UpdateDataEnd(int width, int height)
{
    if (isAplPending) {
        apl = ComputeApl(mappedPlanes[MAIN_Y], mappedBytes[MAIN_Y], width, height);
        isAplPending = false;
    }
    if (currentPlane >= GAINMAP_U && currentPlane < DATA_TYPE_COUNT) {
        // Looked at while the bytes are still mapped; never past the mapping.
        const size_t written =
            static_cast<size_t>(width > 0 ? width : 0) * static_cast<size_t>(height > 0 ? height : 0);
        const size_t mapped = static_cast<size_t>(mappedBytes[currentPlane]);
        gainChroma.Note(currentPlane - GAINMAP_U, mappedPlanes[currentPlane], written < mapped ? written : mapped);
    }
    glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER);
    const int plane = currentPlane;
    if (plane >= GAINMAP_Y) {
        packedGain.Invalidate();
        streamedGainPlanes &= ~(1u << (plane - GAINMAP_Y));
    }
    if (plane >= 0) {
        // The mapping is gone with the unmap; the next metadata intake maps anew.
        mappedPlanes[plane] = nullptr;
        mappedBytes[plane] = 0;
        currentPlane = -1;
    }
    // From the bound buffer: the data argument is an offset into it.
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RED, GL_UNSIGNED_BYTE, nullptr);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return false;
    }
    if (plane >= GAINMAP_Y && width == streamedSizes[plane][0] && height == streamedSizes[plane][1]) {
        streamedGainPlanes |= 1u << (plane - GAINMAP_Y);
        if (streamedGainPlanes == 7u) {
            PackStreamedGainMap();
        }
    }
    if (!UnbindThreadContext()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return false;
    }
    return true;
}

void HdrGenerate::PackStreamedGainMap()
{
    const int width = streamedSizes[GAINMAP_Y][0];
    const int height = streamedSizes[GAINMAP_Y][1];
    for (int plane = GAINMAP_U; plane < DATA_TYPE_COUNT; ++plane) {
        if (streamedSizes[plane][0] != width || streamedSizes[plane][1] != height) {
            return;
        }
    }
    // The picture's own metadata comes after its planes; the last picture's
    // stands in for it here, and the intake checks again.
    if (!GainMapWorthPacking(width, height)) {
        return;
    }
    // The buffers still hold what the host wrote. Only renderers that sample
    // on the CPU pack, and theirs map the buffer's own memory: no copy.
    const int32_t bytes = Product32(width, height);
    const uint8_t* planes[3] = {nullptr, nullptr, nullptr};
    bool mapped = true;
    for (int i = 0; i < 3; ++i) {
        glBindBuffer(GL_COPY_READ_BUFFER, pixelBuffers[GAINMAP_Y + i]);
        if (bytes <= bufferBytes[GAINMAP_Y + i]) {
            planes[i] = static_cast<const uint8_t*>(glMapBufferRange(GL_COPY_READ_BUFFER, 0, bytes, GL_MAP_READ_BIT));
        }
        mapped = mapped && planes[i] != nullptr;
    }
    GLenum error = GL_NO_ERROR;
    const bool packed =
        mapped && packedGain.Upload(PACKED_GAIN_TEXTURE_UNIT, planes[0], planes[1], planes[2], width, height, &error);
    for (int i = 0; i < 3; ++i) {
        if (planes[i] != nullptr) {
            glBindBuffer(GL_COPY_READ_BUFFER, pixelBuffers[GAINMAP_Y + i]);
            glUnmapBuffer(GL_COPY_READ_BUFFER);
        }
    }
    glBindBuffer(GL_COPY_READ_BUFFER, 0);
    if (!mapped) {
        error = TakeGlErrors();
    }
    if (!packed) {
        // Not fatal: the draw samples the three planes instead.
        HDR_LOG("%d ERROR: packing the gain map's planes failed (GL error 0x%x); they are sampled apart\n", __LINE__,
                static_cast<unsigned>(error));
    }
}
