/* The client library: pictures from a stillimage worker.
 *
 *     stillimage_client* client;
 *     stillimage_frame* frame;
 *     if (stillimage_connect(socket_path, 5000, &client) == STILLIMAGE_OK &&
 *         stillimage_get_frame(client, 0, 1280, 720, -1, &frame) == STILLIMAGE_OK) {
 *         const stillimage_picture* picture = stillimage_frame_picture(frame);
 *         ... picture->plane[STILLIMAGE_Y] ...
 *         stillimage_frame_release(frame);
 *     }
 *     stillimage_close(client);
 *
 * For C11 and C++. stillimage_client.hpp offers the same to C++20, with owners and exceptions.
 *
 * The library starts no threads, has no process-wide state, prints nothing, and raises neither
 * signals nor exceptions. A connection and its frames belong to one thread at a time; different
 * connections are independent of each other.
 *
 * Times are in milliseconds: -1 waits without limit, 0 does not wait. No call blocks longer than
 * its limit, whatever the worker does; exceptions are documented with the call.
 *
 * Every call that talks to the worker can return
 *     STILLIMAGE_ERROR_ARGUMENT   a null pointer, or a call from inside the change handler
 *     STILLIMAGE_ERROR_NO_WORKER  the worker has ended; the connection is closed, see
 *                                 stillimage_reconnect
 *     STILLIMAGE_ERROR_TIMEOUT    the connection stays open; a later answer is ignored
 *     STILLIMAGE_ERROR_PROTOCOL   the worker sent something invalid
 *     STILLIMAGE_ERROR_REFUSED    the worker refuses to serve this client
 *     STILLIMAGE_ERROR_LIMIT      a limit of the worker is reached
 *     STILLIMAGE_ERROR_SYSTEM     out of memory or descriptors, in this process or in the worker
 * and puts the reason in words into stillimage_last_error. Further results are documented with the
 * call. Results returned through a pointer are null after a failure, unless stated otherwise.
 */
#ifndef STILLIMAGE_CLIENT_H
#define STILLIMAGE_CLIENT_H

/* NOLINTBEGIN(modernize-*): C as well */
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define STILLIMAGE_API __attribute__((visibility("default")))
#else
#define STILLIMAGE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Results of every call that can fail. */
typedef enum stillimage_result {
    STILLIMAGE_OK = 0,
    STILLIMAGE_ERROR_ARGUMENT = -1,   /* an invalid argument: null, a text that is too long */
    STILLIMAGE_ERROR_NO_WORKER = -2,  /* no worker serves at that path, or it has ended */
    STILLIMAGE_ERROR_TIMEOUT = -3,    /* the time limit passed first */
    STILLIMAGE_ERROR_REFUSED = -4,    /* version or permission; a file that no worker can serve */
    STILLIMAGE_ERROR_NOT_READY = -5,  /* the picture is not decoded yet */
    STILLIMAGE_ERROR_NO_FRAME = -6,   /* no such frame */
    STILLIMAGE_ERROR_PROTOCOL = -7,   /* the worker broke the protocol */
    STILLIMAGE_ERROR_RECORD = -8,     /* the picture's description in shared memory is invalid */
    STILLIMAGE_ERROR_SYSTEM = -9,     /* out of memory or descriptors, a mapping that failed */
    STILLIMAGE_ERROR_VALUE = -10,     /* the worker refuses the value */
    STILLIMAGE_ERROR_LIMIT = -11,     /* more frames or requests than the worker allows */
    STILLIMAGE_ERROR_NOT_STORED = -12 /* since 1.1: applied, but lost when this worker ends */
} stillimage_result;

typedef struct stillimage_client stillimage_client; /* one connection */
typedef struct stillimage_frame stillimage_frame;   /* one held frame */

/* The version of this library, as (major << 16) | minor. A program runs with the minor version that
 * it was built with and any later one. */
STILLIMAGE_API uint32_t stillimage_client_version(void);

/* A short English text for a result, "unknown result" for any other number. Static, never null. */
STILLIMAGE_API const char* stillimage_result_text(stillimage_result result);

/* --- connection ------------------------------------------------------------------------------- */

/* Connects to the worker at `socket_path` (1 to 107 bytes) and exchanges greetings. If there is no
 * worker yet, the call retries for 5 seconds at most, within the time limit; a worker that is
 * running but busy has the whole limit to answer. The worker has to run as the same user or as
 * root, unless the caller is root; otherwise the result is STILLIMAGE_ERROR_REFUSED. After a
 * failure *client is null only if memory is short. Otherwise it can be asked for
 * stillimage_last_error and has to be closed. */
STILLIMAGE_API stillimage_result stillimage_connect(const char* socket_path, int timeout_ms,
                                                    stillimage_client** client);

/* Closes the connection and frees it; the worker reclaims all its frames. Null is allowed. Frames
 * that are still held stay readable until they are released. Does nothing from inside the change
 * handler. */
STILLIMAGE_API void stillimage_close(stillimage_client* client);

/* The last error of this connection, for a person to read: what, where and why. "" without an
 * error, or for null. Valid until the next call on the connection. */
STILLIMAGE_API const char* stillimage_last_error(const stillimage_client* client);

/* For event loops: a descriptor that polls readable when stillimage_dispatch has something to do;
 * -1 once the worker has ended. Do not read from it or close it. Only stillimage_reconnect changes
 * it. The library buffers nothing, so polling the descriptor is enough to notice every event.
 *
 *     struct pollfd waiting = {stillimage_descriptor(client), POLLIN, 0};
 *     poll(&waiting, 1, -1);
 *     if (stillimage_dispatch(client, 0) != STILLIMAGE_OK) {
 *         ... the worker has ended: stop, or stillimage_reconnect ...
 *     }
 */
STILLIMAGE_API int stillimage_descriptor(const stillimage_client* client);

/* Reads everything that has arrived and calls the change handler for it. Waits up to the limit for
 * something to arrive. STILLIMAGE_OK also if nothing did. */
STILLIMAGE_API stillimage_result stillimage_dispatch(stillimage_client* client, int timeout_ms);

/* Process id of the worker, also after it has ended; 0 if there never was a connection. */
STILLIMAGE_API int32_t stillimage_worker_pid(const stillimage_client* client);

/* --- by picture ---------------------------------------------------------------------------------
 */

/* Writes the path of the picture's default socket, where its worker serves unless it was started
 * with another one. STILLIMAGE_ERROR_ARGUMENT if the buffer is too small (108 bytes always
 * suffice), STILLIMAGE_ERROR_SYSTEM with errno set if the picture cannot be reached. */
STILLIMAGE_API stillimage_result stillimage_socket_of(const char* picture, char* buffer,
                                                      size_t size);

enum {
    STILLIMAGE_START_WORKER = 1 << 0 /* start a worker if none serves the picture */
};

/* Like stillimage_connect, to the worker at the picture's default socket. With
 * STILLIMAGE_START_WORKER a worker is started if there is none: the program named by
 * STILLIMAGE_PROGRAM in the environment, otherwise "stillimage" from PATH. It is not a child of the
 * calling process, has its own session, inherits no descriptors, and ends by itself some time after
 * its last client has disconnected. A call that starts a worker returns when that worker has
 * examined the picture, or at the time limit if that takes longer. If the worker cannot serve the
 * file, the result is STILLIMAGE_ERROR_REFUSED and stillimage_last_error has the last lines of its
 * output; if it is killed while it starts, the result is STILLIMAGE_ERROR_NO_WORKER. */
STILLIMAGE_API stillimage_result stillimage_connect_picture(const char* picture, unsigned flags,
                                                            int timeout_ms,
                                                            stillimage_client** client);

/* Connects again with the parameters of this connection, whether the worker has ended or not. With
 * STILLIMAGE_START_WORKER it starts a worker again if there is none. Frames that are held stay
 * readable but no longer belong to the connection. A subscription is renewed; its first event has
 * changes 0, as always. After a failure the connection is closed, and this call may be repeated. */
STILLIMAGE_API stillimage_result stillimage_reconnect(stillimage_client* client, int timeout_ms);

/* --- changes ---------------------------------------------------------------------------------- */

enum {
    STILLIMAGE_CHANGE_PROGRESS = 1 << 0,
    STILLIMAGE_CHANGE_PROVISIONAL = 1 << 1, /* a coarse picture is available */
    STILLIMAGE_CHANGE_READY = 1 << 2,
    STILLIMAGE_CHANGE_METADATA = 1 << 3,
    STILLIMAGE_CHANGE_GOING_DOWN = 1 << 4,
    STILLIMAGE_CHANGE_CLIENTS = 1 << 5,
    STILLIMAGE_CHANGE_DOCUMENT = 1 << 6 /* there is a new status document */
};

typedef struct stillimage_event {
    uint32_t changes;     /* STILLIMAGE_CHANGE_* */
    int32_t percent;      /* 0..100; -1: the picture cannot be decoded */
    int32_t ready;        /* 0: not yet, -1: provisional, 1: final */
    const char* progress; /* text of the current step */
    const char* document; /* status document as JSON with STILLIMAGE_CHANGE_DOCUMENT, else null */
} stillimage_event;

typedef void (*stillimage_event_handler)(void* user, const stillimage_event* event);

/* Subscribes to the changes in `mask`, 0 for none; replaces an earlier subscription. The first
 * event has the current state and changes 0. The handler is called on the caller's thread, from
 * inside stillimage_dispatch and any other call that waits. It gets `user`. It must not call back
 * into the connection, and the event is valid only until it returns: so it should only record what
 * has changed, for the caller to act on after the call. */
STILLIMAGE_API stillimage_result stillimage_subscribe(stillimage_client* client, uint32_t mask,
                                                      stillimage_event_handler handler, void* user,
                                                      int timeout_ms);

/* Waits until the picture is ready; if `provisional` is not 0, a provisional picture is enough. A
 * picture that cannot be decoded never becomes ready: set a time limit, or subscribe and check
 * `percent`. */
STILLIMAGE_API stillimage_result stillimage_wait_ready(stillimage_client* client, int provisional,
                                                       int timeout_ms);

/* --- frames ----------------------------------------------------------------------------------- */

enum {
    STILLIMAGE_Y = 0,
    STILLIMAGE_U = 1,
    STILLIMAGE_V = 2,
    STILLIMAGE_A = 3,
    STILLIMAGE_PLANES = 4
};

enum {
    STILLIMAGE_RANGE_LIMITED = 1
}; /* Y 16..235, U and V 16..240 centred on 128; A 0..255, straight */
enum { STILLIMAGE_MATRIX_BT601 = 1 };

/* One picture: full size or a reduced level. Planes have 8 bits a sample, rows run top down. An
 * absent plane has a null pointer and stride, width and height 0: U and V of a monochrome picture,
 * A of an opaque one. The size of subsampled chroma is rounded up at full size and rounded down, to
 * at least 1, in a reduced level: if the last column or row of pixels has no chroma, repeat the
 * last sample. */
typedef struct stillimage_picture {
    const uint8_t* plane[STILLIMAGE_PLANES];
    uint32_t stride[STILLIMAGE_PLANES];       /* bytes from row to row */
    uint32_t plane_width[STILLIMAGE_PLANES];  /* samples of a row, without padding */
    uint32_t plane_height[STILLIMAGE_PLANES]; /* rows, without padding */
    uint32_t width;                           /* of this picture */
    uint32_t height;
    uint32_t full_width; /* of the item */
    uint32_t full_height;
    uint32_t scale_x; /* of this picture relative to the full one, 16.16 */
    uint32_t scale_y;
    uint8_t chroma_x_shift; /* log2 of the subsampling: 0, 1 or 2 */
    uint8_t chroma_y_shift;
    uint8_t range;            /* STILLIMAGE_RANGE_LIMITED */
    uint8_t matrix;           /* STILLIMAGE_MATRIX_BT601 */
    uint64_t frame_number;    /* 1 for the first */
    int64_t aspect_numerator; /* display aspect ratio of the whole picture; both at least 1 */
    int64_t aspect_denominator;
    int32_t provisional; /* 1: a coarse picture that will be refined in place */
} stillimage_picture;

/* The worker's frame message and the record in shared memory, unprocessed. For tools that examine
 * the worker itself; stillimage_picture is derived from this. */
typedef struct stillimage_descriptor_info {
    uint32_t buffer;
    uint64_t base_offset;
    uint64_t area_size;
    uint64_t scanline_offset;
    uint64_t scanline_size;
    uint64_t frame_number;
    int32_t width;
    int32_t height;
    int64_t aspect_numerator;
    int64_t aspect_denominator;
    int32_t provisional;
    const uint8_t* scanline; /* private copy of the whole scanline area, scanline_size bytes */
    const uint8_t* area;     /* the whole shared area, area_size bytes, read-only */
} stillimage_descriptor_info;

/* Gets the frame shown at `time_position`, in units of the item's time scale (see
 * stillimage_timeline; 1/100 s for animations); 0 for still pictures. Past the end it is the last
 * frame. The frame has the level that best fits an output of wanted_width x wanted_height: the full
 * size, or the full size halved one or more times. If either is below 1, it is the full size.
 * Release *frame with stillimage_frame_release. A client can hold up to 1,024 frames of a worker.
 *
 * Waits within the limit until the picture is ready. With 0, a picture that is not ready gives
 * STILLIMAGE_ERROR_NOT_READY; the worker has a second to answer so. STILLIMAGE_ERROR_NO_FRAME: the
 * worker has no frame. STILLIMAGE_ERROR_RECORD: the buffer or the description is invalid. After a
 * time limit has passed the request stays with the worker, up to 64 of them; to wait in small
 * steps, use stillimage_wait_ready. */
STILLIMAGE_API stillimage_result stillimage_get_frame(stillimage_client* client,
                                                      uint64_t time_position, int32_t wanted_width,
                                                      int32_t wanted_height, int timeout_ms,
                                                      stillimage_frame** frame);

/* Both results live as long as the frame, even if the worker ends or the connection is closed.
 * Never null; for a null frame every field is 0. */
STILLIMAGE_API const stillimage_picture* stillimage_frame_picture(const stillimage_frame* frame);
STILLIMAGE_API const stillimage_descriptor_info*
stillimage_frame_descriptor(const stillimage_frame* frame);

/* Returns the frame to the worker and frees it. Null is allowed, and so is a frame whose connection
 * has been closed. Never waits. */
STILLIMAGE_API void stillimage_frame_release(stillimage_frame* frame);

/* --- timeline --------------------------------------------------------------------------------- */

/* One frame on the timeline. Times are in units of the time scale, `duration` is at least 1. */
typedef struct stillimage_timeline_entry {
    uint64_t start;
    uint64_t duration;
    uint64_t frame_number; /* 1 for the first */
} stillimage_timeline_entry;

/* A second has `scale_numerator` / `scale_denominator` units; both are at least 1. */
typedef struct stillimage_timeline {
    uint32_t scale_numerator;
    uint32_t scale_denominator;
    uint64_t duration;                        /* of all entries, at least 1 */
    size_t count;                             /* of entries, at least 1 */
    const stillimage_timeline_entry* entries; /* in the order shown, without gaps */
} stillimage_timeline;

/* Determines when each frame is shown. Waits until the picture is ready. Frames that are never
 * shown are left out; a still picture has one entry. The call makes about three requests for each
 * frame, at some ten thousand requests a second. With more than 20,000 frames it returns
 * STILLIMAGE_ERROR_LIMIT. Free *timeline with stillimage_timeline_free; it is independent of the
 * connection. */
STILLIMAGE_API stillimage_result stillimage_get_timeline(stillimage_client* client, int timeout_ms,
                                                         const stillimage_timeline** timeline);
STILLIMAGE_API void
stillimage_timeline_free(const stillimage_timeline* timeline); /* null is allowed */

/* --- conversions --------------------------------------------------------------------------------
 *
 * They convert pictures into memory of the caller, unless stated otherwise. They need no connection
 * and may run in any thread while the frame is held. The picture may also be the caller's own: it
 * needs a size, a Y plane of that size, and both chroma planes or neither. An invalid picture or
 * any other invalid argument gives STILLIMAGE_ERROR_ARGUMENT. */

/* Packed 8-bit pixels, full range, by the BT.601 matrix; alpha is straight. */
enum {
    STILLIMAGE_RGB24 = 1, /* bytes R G B; alpha is dropped */
    STILLIMAGE_RGBA32 = 2 /* bytes R G B A; A is 255 when the picture has none */
};

/* Converts the picture to width x height pixels. `stride` is in bytes from row to row, at least 3
 * or 4 times the width; bytes after the end of a row are not written. At the picture's own size a
 * chroma sample applies to all pixels that share it, and every value is rounded to the nearest. For
 * any other size each axis is filtered separately: a smaller size takes the mean of what a pixel
 * covers, a larger one interpolates linearly, and colour is weighted by alpha. To save most of this
 * work, request a frame of about this size from stillimage_get_frame. */
STILLIMAGE_API stillimage_result stillimage_picture_to_pixels(const stillimage_picture* picture,
                                                              uint32_t format, uint32_t width,
                                                              uint32_t height, uint8_t* pixels,
                                                              size_t stride);

/* Makes a PNG file of the picture at its own size: RGBA if it has alpha, else RGB. Free *file with
 * stillimage_free. STILLIMAGE_ERROR_SYSTEM: out of memory. */
STILLIMAGE_API stillimage_result stillimage_picture_to_png(const stillimage_picture* picture,
                                                           uint8_t** file, size_t* size);

/* Writes the same file to a descriptor, row by row. There is no time limit: the call waits for the
 * descriptor, even for a non-blocking one. STILLIMAGE_ERROR_SYSTEM with errno set if writing fails;
 * SIGPIPE is not raised. Bytes written before the failure remain. */
STILLIMAGE_API stillimage_result stillimage_picture_write_png(const stillimage_picture* picture,
                                                              int descriptor);

/* Makes a PNG file of packed pixels, such as those of stillimage_picture_to_pixels. */
STILLIMAGE_API stillimage_result stillimage_pixels_to_png(uint32_t format, uint32_t width,
                                                          uint32_t height, const uint8_t* pixels,
                                                          size_t stride, uint8_t** file,
                                                          size_t* size);

/* Kinds of YUV4MPEG2 streams, all of limited range. 4:2:0 chroma is sited between the pixels. */
enum {
    STILLIMAGE_Y4M_MONO = 1,
    STILLIMAGE_Y4M_420 = 2,
    STILLIMAGE_Y4M_422 = 3,
    STILLIMAGE_Y4M_444 = 4,
    STILLIMAGE_Y4M_444_ALPHA = 5
};

/* The properties that all frames of a stream share. */
typedef struct stillimage_y4m_stream {
    uint32_t width;
    uint32_t height;
    uint32_t kind; /* STILLIMAGE_Y4M_* */
} stillimage_y4m_stream;

/* Chooses the stream that stores the picture unchanged. With alpha, or with a subsampling that the
 * format does not have, it is a 4:4:4 stream with repeated chroma. */
STILLIMAGE_API stillimage_result stillimage_y4m_stream_of(const stillimage_picture* picture,
                                                          stillimage_y4m_stream* stream);

/* 1 if the picture can be a frame of the stream, else 0. A stream with alpha accepts every picture
 * of its size; one without alpha becomes opaque. */
STILLIMAGE_API int stillimage_y4m_fits(const stillimage_picture* picture,
                                       const stillimage_y4m_stream* stream);

/* Writes the stream's first line, NUL-terminated, with the rate in frames a second and the aspect
 * ratio of the picture. STILLIMAGE_ERROR_ARGUMENT if the buffer is too small; 256 bytes always
 * suffice. */
STILLIMAGE_API stillimage_result stillimage_y4m_header(const stillimage_picture* picture,
                                                       const stillimage_y4m_stream* stream,
                                                       uint32_t rate_numerator,
                                                       uint32_t rate_denominator, char* buffer,
                                                       size_t size);

/* The size of each frame in bytes, including its "FRAME" line; 0 for an invalid stream, and for one
 * whose frames no memory can hold. */
STILLIMAGE_API size_t stillimage_y4m_frame_size(const stillimage_y4m_stream* stream);

/* Writes a frame into `buffer`; `size` is at least stillimage_y4m_frame_size. A picture that does
 * not fit the stream gives STILLIMAGE_ERROR_ARGUMENT. */
STILLIMAGE_API stillimage_result stillimage_y4m_frame(const stillimage_picture* picture,
                                                      const stillimage_y4m_stream* stream,
                                                      uint8_t* buffer, size_t size);

/* --- status, metadata, exit ---------------------------------------------------------------------
 */

/* Gets the status document as JSON in UTF-8: the item, the worker, its buffer and the picture.
 * *json is NUL-terminated; free it with stillimage_free. */
STILLIMAGE_API stillimage_result stillimage_get_status(stillimage_client* client, int timeout_ms,
                                                       char** json);

/* Frees memory that a call documents as freed by this one. Null is allowed. */
STILLIMAGE_API void stillimage_free(void* memory);

/* Sets a metadata value of the item, such as "aspect ratio" to "16:9", for this worker and later
 * ones. A name has 256 bytes at most, a value 16384. STILLIMAGE_OK: the value is applied, and
 * survives if the worker dies at any later moment; a power failure within about a second may still
 * lose it. (Workers of protocol 1.0 answer before they store anything.)
 * STILLIMAGE_ERROR_NOT_STORED: the value is applied but could not be stored, for the reason in
 * stillimage_last_error; the worker keeps retrying. STILLIMAGE_ERROR_VALUE: the worker refuses this
 * value, or any value for this name. */
STILLIMAGE_API stillimage_result stillimage_set_metadata(stillimage_client* client,
                                                         const char* name, const char* value,
                                                         int timeout_ms);

/* Asks the worker to exit. STILLIMAGE_OK once it has agreed; soon after that it ends, for all its
 * clients. */
STILLIMAGE_API stillimage_result stillimage_quit(stillimage_client* client, int timeout_ms);

/* Checks that the worker answers, which it also does while it decodes. */
STILLIMAGE_API stillimage_result stillimage_ping(stillimage_client* client, int timeout_ms);

#ifdef __cplusplus
}
#endif
/* NOLINTEND(modernize-*) */

#endif
