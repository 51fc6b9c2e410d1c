// Buffer-manager stand-in: surfaces are zero-filled heap buffers with one
// plane of 4 bytes per pixel and rows padded to 64 bytes, as hardware buffers
// of the target are. A handle is a small id (1..0x7fffffff) looked up in a
// table; it is never used as a pointer, so a stale or forged handle is simply
// "not live" and every call answers TBM_SURFACE_ERROR_INVALID_PARAMETER.
#include "tbm_surface.h"
#include "tbm_surface_standin.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

namespace {

constexpr uint32_t kMaxId = 0x7fffffffu;
constexpr uint64_t kRowAlignment = 64;
constexpr uint32_t kBytesPerPixel = 4;
constexpr uint32_t kBitsPerPixel = 32;

struct FreeDeleter {
    void operator()(unsigned char* p) const { std::free(p); }
};

struct Surface {
    uint32_t width = 0;
    uint32_t height = 0;
    tbm_format format = 0;
    uint32_t stride = 0;
    uint32_t size = 0;
    std::unique_ptr<unsigned char, FreeDeleter> memory;
};

struct State {
    std::mutex mutex;
    std::unordered_map<uint32_t, std::unique_ptr<Surface>> surfaces;
    uint32_t lastId = 0;
    int pendingFailures = 0;
};

// Never destroyed: a host may still call in from a thread or an atexit
// handler while static objects are being torn down.
State& GetState()
{
    static State* const state = new State;
    return *state;
}

uint32_t IdFromHandle(tbm_surface_h surface)
{
    const uintptr_t value = reinterpret_cast<uintptr_t>(surface);
    if (value == 0 || value > kMaxId) {
        return 0;
    }
    return static_cast<uint32_t>(value);
}

tbm_surface_h HandleFromId(uint32_t id)
{
    return reinterpret_cast<tbm_surface_h>(static_cast<uintptr_t>(id));
}

// Caller holds state.mutex.
Surface* FindLocked(State& state, tbm_surface_h surface)
{
    const uint32_t id = IdFromHandle(surface);
    if (id == 0) {
        return nullptr;
    }
    const auto it = state.surfaces.find(id);
    return it == state.surfaces.end() ? nullptr : it->second.get();
}

// Next id after the last one handed out, skipping ids still live; ids come
// round again only after about two thousand million creations. Caller holds
// state.mutex and has checked that a free id exists.
uint32_t NextIdLocked(State& state)
{
    uint32_t id = state.lastId;
    do {
        id = (id >= kMaxId) ? 1 : id + 1;
    } while (state.surfaces.count(id) != 0);
    state.lastId = id;
    return id;
}

void FillInfo(const Surface& s, tbm_surface_info_s* info)
{
    std::memset(info, 0, sizeof(*info));
    info->width = s.width;
    info->height = s.height;
    info->format = s.format;
    info->bpp = kBitsPerPixel;
    info->size = s.size;
    info->num_planes = 1;
    info->planes[0].ptr = s.memory.get();
    info->planes[0].size = s.size;
    info->planes[0].offset = 0;
    info->planes[0].stride = s.stride;
}

bool IsSupportedFormat(tbm_format format)
{
    return format == TBM_FORMAT_RGBA8888 || format == TBM_FORMAT_ABGR8888;
}

}  // namespace

extern "C" {

tbm_surface_h tbm_surface_create(int width, int height, tbm_format format)
{
    State& state = GetState();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.pendingFailures > 0) {
            --state.pendingFailures;
            return nullptr;
        }
    }
    if (width < 1 || height < 1 || !IsSupportedFormat(format)) {
        return nullptr;
    }
    // 64-bit arithmetic: width*4 and stride*height cannot overflow here.
    const uint64_t rowBytes = static_cast<uint64_t>(width) * kBytesPerPixel;
    const uint64_t stride = (rowBytes + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
    const uint64_t size = stride * static_cast<uint64_t>(height);
    if (size > UINT32_MAX) {
        return nullptr;
    }

    std::unique_ptr<Surface> surface(new (std::nothrow) Surface);
    if (!surface) {
        return nullptr;
    }
    surface->width = static_cast<uint32_t>(width);
    surface->height = static_cast<uint32_t>(height);
    surface->format = format;
    surface->stride = static_cast<uint32_t>(stride);
    surface->size = static_cast<uint32_t>(size);
    surface->memory.reset(static_cast<unsigned char*>(std::calloc(static_cast<size_t>(size), 1)));
    if (!surface->memory) {
        return nullptr;
    }

    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.surfaces.size() >= kMaxId) {
        return nullptr;
    }
    const uint32_t id = NextIdLocked(state);
    try {
        state.surfaces.emplace(id, std::move(surface));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return HandleFromId(id);
}

int tbm_surface_destroy(tbm_surface_h surface)
{
    State& state = GetState();
    std::unique_ptr<Surface> doomed;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        const uint32_t id = IdFromHandle(surface);
        const auto it = id == 0 ? state.surfaces.end() : state.surfaces.find(id);
        if (it == state.surfaces.end()) {
            return TBM_SURFACE_ERROR_INVALID_PARAMETER;
        }
        doomed = std::move(it->second);
        state.surfaces.erase(it);
    }
    return TBM_SURFACE_ERROR_NONE;  // memory freed here, outside the lock
}

int tbm_surface_map(tbm_surface_h surface, int opt, tbm_surface_info_s* info)
{
    if ((opt & (TBM_SURF_OPTION_READ | TBM_SURF_OPTION_WRITE)) == 0) {
        return TBM_SURFACE_ERROR_INVALID_PARAMETER;
    }
    // Memory is always mapped: mapping is describing it.
    return tbm_surface_get_info(surface, info);
}

int tbm_surface_unmap(tbm_surface_h surface)
{
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    return FindLocked(state, surface) != nullptr ? TBM_SURFACE_ERROR_NONE
                                                 : TBM_SURFACE_ERROR_INVALID_PARAMETER;
}

int tbm_surface_get_info(tbm_surface_h surface, tbm_surface_info_s* info)
{
    if (info == nullptr) {
        return TBM_SURFACE_ERROR_INVALID_PARAMETER;
    }
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    const Surface* s = FindLocked(state, surface);
    if (s == nullptr) {
        return TBM_SURFACE_ERROR_INVALID_PARAMETER;
    }
    FillInfo(*s, info);
    return TBM_SURFACE_ERROR_NONE;
}

int tbm_surface_get_width(tbm_surface_h surface)
{
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    const Surface* s = FindLocked(state, surface);
    return s != nullptr ? static_cast<int>(s->width) : TBM_SURFACE_ERROR_INVALID_PARAMETER;
}

int tbm_surface_get_height(tbm_surface_h surface)
{
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    const Surface* s = FindLocked(state, surface);
    return s != nullptr ? static_cast<int>(s->height) : TBM_SURFACE_ERROR_INVALID_PARAMETER;
}

tbm_format tbm_surface_get_format(tbm_surface_h surface)
{
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    const Surface* s = FindLocked(state, surface);
    return s != nullptr ? s->format : 0;
}

void tbm_standin_fail_next_create(int count)
{
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.pendingFailures = count > 0 ? count : 0;
}

int tbm_standin_live_surface_count(void)
{
    State& state = GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    return static_cast<int>(state.surfaces.size());
}

}  // extern "C"
