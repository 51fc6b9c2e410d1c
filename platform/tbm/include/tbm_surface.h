/* Stand-in for the platform buffer manager's surface header: the types,
 * formats and calls of the platform's tbm_surface.h that this project uses. */
#ifndef HDRGPU_STANDIN_TBM_SURFACE_H
#define HDRGPU_STANDIN_TBM_SURFACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _tbm_surface *tbm_surface_h;
typedef uint32_t tbm_format;

#define TBM_SURF_PLANE_MAX 4

#define TBM_SURF_OPTION_READ (1 << 0)
#define TBM_SURF_OPTION_WRITE (1 << 1)

typedef enum {
    TBM_SURFACE_ERROR_NONE = 0,
    TBM_SURFACE_ERROR_INVALID_PARAMETER = -22,
    TBM_SURFACE_ERROR_INVALID_OPERATION = -38
} tbm_surface_error_e;

typedef struct _tbm_surface_plane {
    unsigned char *ptr;
    uint32_t size;
    uint32_t offset;
    uint32_t stride;
    uint32_t reserved1;
    uint32_t reserved2;
    uint32_t reserved3;
} tbm_surface_plane_s;

typedef struct _tbm_surface_info {
    uint32_t width;
    uint32_t height;
    tbm_format format;
    uint32_t bpp;
    uint32_t size;
    uint32_t num_planes;
    tbm_surface_plane_s planes[TBM_SURF_PLANE_MAX];
} tbm_surface_info_s;

#define __tbm_fourcc_code(a, b, c, d) \
    ((uint32_t)(a) | ((uint32_t)(b) << 8) | ((uint32_t)(c) << 16) | ((uint32_t)(d) << 24))

/* [31:0] R:G:B:A 8:8:8:8 little endian: bytes A, B, G, R in memory. */
#define TBM_FORMAT_RGBA8888 __tbm_fourcc_code('R', 'A', '2', '4')
/* [31:0] A:B:G:R 8:8:8:8 little endian: bytes R, G, B, A in memory. */
#define TBM_FORMAT_ABGR8888 __tbm_fourcc_code('A', 'B', '2', '4')

tbm_surface_h tbm_surface_create(int width, int height, tbm_format format);
int tbm_surface_destroy(tbm_surface_h surface);
int tbm_surface_map(tbm_surface_h surface, int opt, tbm_surface_info_s *info);
int tbm_surface_unmap(tbm_surface_h surface);
int tbm_surface_get_info(tbm_surface_h surface, tbm_surface_info_s *info);
int tbm_surface_get_width(tbm_surface_h surface);
int tbm_surface_get_height(tbm_surface_h surface);
tbm_format tbm_surface_get_format(tbm_surface_h surface);

#ifdef __cplusplus
}
#endif

#endif
