/* Controls of the system-information stand-in; not part of the platform's API.
 * Every key starts without a value (reads answer SYSTEM_INFO_ERROR_NOT_SUPPORTED). */
#ifndef HDRGPU_STANDIN_SYSTEM_INFO_CONTROL_H
#define HDRGPU_STANDIN_SYSTEM_INFO_CONTROL_H

#include "system_info.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Gives key the value value; later reads return it with SYSTEM_INFO_ERROR_NONE. */
void system_info_standin_set_int(system_info_key_e key, int value);

/* Makes every later read of key fail with error (a non-zero code). */
void system_info_standin_set_error(system_info_key_e key, int error);

/* Takes key's value or error away again: reads answer NOT_SUPPORTED. */
void system_info_standin_clear(system_info_key_e key);

/* Clears every key. */
void system_info_standin_reset(void);

#ifdef __cplusplus
}
#endif

#endif
