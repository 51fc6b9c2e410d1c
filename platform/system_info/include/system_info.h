/* Stand-in for the platform's system-information header: the integer read
 * and its error codes, as the platform declares them. */
#ifndef HDRGPU_STANDIN_SYSTEM_INFO_H
#define HDRGPU_STANDIN_SYSTEM_INFO_H

#ifdef __cplusplus
extern "C" {
#endif

/* Keys are plain integers on this platform; the stand-in accepts any value. */
typedef int system_info_key_e;

typedef enum {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
    SYSTEM_INFO_ERROR_OUT_OF_MEMORY = -12,
    SYSTEM_INFO_ERROR_IO_ERROR = -5,
    SYSTEM_INFO_ERROR_PERMISSION_DENIED = -13,
    SYSTEM_INFO_ERROR_NOT_SUPPORTED = -1073741822
} system_info_error_e;

/* Reads the integer value of key into *value. Returns SYSTEM_INFO_ERROR_NONE,
 * SYSTEM_INFO_ERROR_INVALID_PARAMETER for a NULL value,
 * SYSTEM_INFO_ERROR_NOT_SUPPORTED for a key that has no value, or another
 * error code of the platform (for instance SYSTEM_INFO_ERROR_IO_ERROR) when
 * the read fails; *value is written only on success. */
int system_info_get_value_int(system_info_key_e key, int *value);

#ifdef __cplusplus
}
#endif

#endif
