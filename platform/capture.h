/* The camera's capture library: single pictures of the live video. Packages load it at run time, as
 * not every device has it: the names below are what to look up in "libcapture.so". A stream and its
 * frames may be used by one thread at a time. */
#ifndef CAPTURE_H
#define CAPTURE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CaptureStream CaptureStream;
typedef struct CaptureFrame CaptureFrame;

/* Opens a stream of a media type ("image/jpeg") with properties such as "resolution=1280x720". NULL
 * when the device has no such stream. */
CaptureStream *capture_open_stream(const char *media_type, const char *properties);

/* The next picture, or NULL. Waits for it. Outlives its stream. */
CaptureFrame *capture_get_frame(CaptureStream *stream);

/* The picture's bytes, which belong to the frame, and their number. */
void *capture_frame_data(CaptureFrame *frame);
size_t capture_frame_size(CaptureFrame *frame);

/* NULL is allowed. */
void capture_frame_free(CaptureFrame *frame);
void capture_close_stream(CaptureStream *stream);

#ifdef __cplusplus
}
#endif

#endif
