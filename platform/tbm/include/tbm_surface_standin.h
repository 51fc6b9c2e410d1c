/* Controls of the buffer-manager stand-in; not part of the platform's API. */
#ifndef HDRGPU_STANDIN_TBM_CONTROL_H
#define HDRGPU_STANDIN_TBM_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Makes the next count calls of tbm_surface_create return NULL. */
void tbm_standin_fail_next_create(int count);

/* Number of surfaces created and not yet destroyed. */
int tbm_standin_live_surface_count(void);

#ifdef __cplusplus
}
#endif

#endif
