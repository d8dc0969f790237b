/*
 * libgridfit — turns the bitmap of a scalable image into an ".ovl" file
 * sized for one stream.
 *
 * Stand-in for the camera's own library with the same interface.
 */
#ifndef GRIDFIT_H
#define GRIDFIT_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define GRIDFIT_API __attribute__((visibility("default")))
#else
#define GRIDFIT_API
#endif

/* Size of the path buffer that gridfit_convert reads and rewrites. */
#define GRIDFIT_PATH_SIZE 512

/* path: a buffer of GRIDFIT_PATH_SIZE bytes naming a directory that holds the
 * bitmap file "bmp". The bitmap is scaled by stream_height / 1080 (at least
 * one pixel each way) into a version '4' ".ovl" file in a cache directory
 * outside the image directory; on success path names that file. out1 and
 * out2 are reserved and left as they are. Returns 0, or a negative value
 * (and path unchanged, nothing written) for a missing, truncated or
 * unsupported bitmap or a failed write. */
GRIDFIT_API int gridfit_convert(char* path, int channel, int* out1, int* out2, int stream_height,
                                int stream_width);

#ifdef __cplusplus
}
#endif

#endif /* GRIDFIT_H */
