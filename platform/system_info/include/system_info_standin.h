/* Controls of the system-information stand-in; not part of the platform's API.
 * Every key starts without a value (reads answer SYSTEM_INFO_ERROR_NOT_SUPPORTED).
 *
 * Values from the environment: on first use (any call of this library) the
 * stand-in reads every environment variable named HDRGPU_SYSTEM_INFO_<key>
 * whose value is a decimal int, e.g. HDRGPU_SYSTEM_INFO_1302=65, and gives key
 * that value. Key and value are parsed strictly: an optional '-' and decimal
 * digits only, the whole string, within int32 range; a variable that does not
 * parse is ignored. system_info_standin_reset() reads the environment again,
 * so a test can setenv() and then reset. The calls below override values
 * that came from the environment (until the next reset).
 *
 * All calls are thread-safe. */
#ifndef HDRGPU_STANDIN_SYSTEM_INFO_CONTROL_H
#define HDRGPU_STANDIN_SYSTEM_INFO_CONTROL_H

#include "system_info.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Gives key the value value; later reads return it with SYSTEM_INFO_ERROR_NONE. */
void system_info_standin_set_int(system_info_key_e key, int value);

/* Makes every later read of key fail with error (a non-zero code), leaving
 * *value untouched. An error of 0 (SYSTEM_INFO_ERROR_NONE) is the same as
 * system_info_standin_clear(key): a read never reports success without a value. */
void system_info_standin_set_error(system_info_key_e key, int error);

/* Takes key's value or error away again (one given by the environment too):
 * reads answer NOT_SUPPORTED. */
void system_info_standin_clear(system_info_key_e key);

/* Clears every key, then gives again the values of the environment
 * (HDRGPU_SYSTEM_INFO_<key> variables, read anew). */
void system_info_standin_reset(void);

#ifdef __cplusplus
}
#endif

#endif
