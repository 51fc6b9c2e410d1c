/* Controls of the buffer-manager stand-in; not part of the platform's API.
 *
 * The stand-in's surfaces: one plane of 4 bytes per pixel, stride = width*4
 * rounded up to a multiple of 64 bytes, size = stride*height, zero-filled.
 * Handles are ids in 1..0x7fffffff (never pointers), not reused until about
 * two thousand million creations later, so a stale handle is refused with
 * TBM_SURFACE_ERROR_INVALID_PARAMETER. Every call is thread-safe. */
#ifndef HDRGPU_STANDIN_TBM_CONTROL_H
#define HDRGPU_STANDIN_TBM_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Makes the next count calls of tbm_surface_create return NULL. Each call of
 * tbm_surface_create consumes one armed failure, whatever its arguments. A new
 * call replaces the number still pending; a count of 0 or less disarms. */
void tbm_standin_fail_next_create(int count);

/* Number of surfaces created and not yet destroyed. */
int tbm_standin_live_surface_count(void);

#ifdef __cplusplus
}
#endif

#endif
