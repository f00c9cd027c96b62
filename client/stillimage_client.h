/* Taking pictures from a stillimage worker.
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
 * Usable from C11 and C++; stillimage_client.hpp has the same for C++20 with owners and exceptions.
 *
 * No threads, no process-wide state, no output, no signals, no exceptions. A connection and its frames
 * belong to one thread at a time; different connections have nothing to do with each other.
 *
 * Times are in milliseconds: -1 waits for ever, 0 not at all. No call blocks longer than its limit,
 * whatever the worker does; where a call has exceptions from that, it says so.
 *
 * Every call that talks to the worker may end with
 *     STILLIMAGE_ERROR_ARGUMENT   a null, or a call from inside the change handler
 *     STILLIMAGE_ERROR_NO_WORKER  the worker has gone; the connection is closed, see
 *                                 stillimage_reconnect
 *     STILLIMAGE_ERROR_TIMEOUT    the connection stays as it is, an answer that comes later is passed
 *                                 over
 *     STILLIMAGE_ERROR_PROTOCOL   what the worker sent makes no sense
 *     STILLIMAGE_ERROR_REFUSED    it hangs up on this client
 *     STILLIMAGE_ERROR_LIMIT      too much is asked of it
 *     STILLIMAGE_ERROR_SYSTEM     out of memory or descriptors, here or there
 * and says what in words in stillimage_last_error. Further results are named with the call. What a call
 * hands out by a pointer is null after a failure, unless it says otherwise.
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
    STILLIMAGE_ERROR_ARGUMENT = -1,  /* a call that makes no sense: null, a text that is too long */
    STILLIMAGE_ERROR_NO_WORKER = -2, /* nobody serves at that path, or the worker has gone */
    STILLIMAGE_ERROR_TIMEOUT = -3,   /* the time limit passed first */
    STILLIMAGE_ERROR_REFUSED = -4,   /* version or permission; a file that no worker serves */
    STILLIMAGE_ERROR_NOT_READY = -5, /* the picture is not decoded yet */
    STILLIMAGE_ERROR_NO_FRAME = -6,  /* no such frame */
    STILLIMAGE_ERROR_PROTOCOL = -7,  /* the worker sent what it may not send */
    STILLIMAGE_ERROR_RECORD = -8,    /* the picture's description in shared memory is not valid */
    STILLIMAGE_ERROR_SYSTEM = -9,    /* out of memory or descriptors, a mapping that failed */
    STILLIMAGE_ERROR_VALUE = -10,    /* the worker refuses the value */
    STILLIMAGE_ERROR_LIMIT = -11,    /* more frames or requests than the worker allows */
    STILLIMAGE_ERROR_NOT_STORED = -12 /* since 1.1: the value is set, but lost with this worker */
} stillimage_result;

typedef struct stillimage_client stillimage_client; /* one connection */
typedef struct stillimage_frame stillimage_frame;   /* one held frame */

/* The version of this library, as (major << 16) | minor. Programs run with any minor version that is
 * not below the one that they were made with. */
STILLIMAGE_API uint32_t stillimage_client_version(void);

/* A short English text for a result, "unknown result" for any other number. Never null, static. */
STILLIMAGE_API const char* stillimage_result_text(stillimage_result result);

/* --- connection ------------------------------------------------------------------------------- */

/* Connects to the worker at `socket_path` (1 to 107 bytes) and greets it. A worker that is just
 * starting is waited for, 5 seconds at most and within the time limit; one that is there but busy has
 * the whole limit to greet. It has to run as the same user or as root, unless the caller is root, else
 * STILLIMAGE_ERROR_REFUSED. On failure *client is still made unless memory is short (then it is
 * null), so that stillimage_last_error can be asked; close it as any other. */
STILLIMAGE_API stillimage_result stillimage_connect(const char* socket_path, int timeout_ms,
                                                    stillimage_client** client);

/* Closes the connection and frees it; the worker takes all its frames back. Null is fine. Frames that
 * are still held stay readable until released. Does nothing from inside the change handler. */
STILLIMAGE_API void stillimage_close(stillimage_client* client);

/* What went wrong last on this connection, for a person: what, where and why. "" when nothing did,
 * or for null. Valid until the next call on the connection. */
STILLIMAGE_API const char* stillimage_last_error(const stillimage_client* client);

/* For event loops: a descriptor that polls readable when stillimage_dispatch has something to do; -1
 * once the worker has gone. Not to be read from, nor closed. It changes with stillimage_reconnect,
 * never else. Nothing is held back inside the library: what has not been told is still to be read.
 *
 *     struct pollfd waiting = {stillimage_descriptor(client), POLLIN, 0};
 *     poll(&waiting, 1, -1);
 *     if (stillimage_dispatch(client, 0) != STILLIMAGE_OK) {
 *         ... the worker has gone: stop, or stillimage_reconnect ...
 *     }
 */
STILLIMAGE_API int stillimage_descriptor(const stillimage_client* client);

/* Takes in all that has arrived and calls the change handler for it. Waits for the first of it as
 * long as the limit allows. STILLIMAGE_OK also when there was nothing. */
STILLIMAGE_API stillimage_result stillimage_dispatch(stillimage_client* client, int timeout_ms);

/* Process id of the worker, also after it has gone; 0 when it never was connected. */
STILLIMAGE_API int32_t stillimage_worker_pid(const stillimage_client* client);

/* --- by picture ---------------------------------------------------------------------------------
 */

/* Writes the path of the socket where the picture's worker serves unless it was told another one.
 * STILLIMAGE_ERROR_ARGUMENT when the buffer is too small for it (108 bytes always suffice),
 * STILLIMAGE_ERROR_SYSTEM with errno set when the picture cannot be reached. */
STILLIMAGE_API stillimage_result stillimage_socket_of(const char* picture, char* buffer,
                                                      size_t size);

enum {
    STILLIMAGE_START_WORKER = 1 << 0 /* when nobody serves the picture */
};

/* As stillimage_connect, to the worker at the picture's own socket. With STILLIMAGE_START_WORKER
 * and nobody there, one is started and waited for: the program named by STILLIMAGE_PROGRAM in the
 * environment, otherwise "stillimage" of PATH. It is no child of the calling process, has a session
 * of its own, inherits no descriptor, and ends by itself some time after its last client left. A
 * file that it does not serve is STILLIMAGE_ERROR_REFUSED with the worker's last words in
 * stillimage_last_error, so the call returns when the worker has examined the picture, or at the time
 * limit when that takes longer. A worker that is killed while it starts is
 * STILLIMAGE_ERROR_NO_WORKER. */
STILLIMAGE_API stillimage_result stillimage_connect_picture(const char* picture, unsigned flags,
                                                            int timeout_ms,
                                                            stillimage_client** client);

/* Connects once more as this connection was made, after the worker has gone or not; a worker is
 * started again, too, when it was to be then. Frames that are held stay readable, but belong to the
 * connection no longer. A subscription is renewed; its first event has changes 0 as always. After a
 * failure the connection is closed, and may be tried again. */
STILLIMAGE_API stillimage_result stillimage_reconnect(stillimage_client* client, int timeout_ms);

/* --- changes ---------------------------------------------------------------------------------- */

enum {
    STILLIMAGE_CHANGE_PROGRESS = 1 << 0,
    STILLIMAGE_CHANGE_PROVISIONAL = 1 << 1, /* a coarse picture can be had */
    STILLIMAGE_CHANGE_READY = 1 << 2,
    STILLIMAGE_CHANGE_METADATA = 1 << 3,
    STILLIMAGE_CHANGE_GOING_DOWN = 1 << 4,
    STILLIMAGE_CHANGE_CLIENTS = 1 << 5,
    STILLIMAGE_CHANGE_DOCUMENT = 1 << 6 /* a new status document came along */
};

typedef struct stillimage_event {
    uint32_t changes;     /* STILLIMAGE_CHANGE_* */
    int32_t percent;      /* 0..100, -1: the decoder refuses the picture */
    int32_t ready;        /* 0 not yet, -1 provisional, 1 final */
    const char* progress; /* text of the present step */
    const char* document; /* status document as JSON with STILLIMAGE_CHANGE_DOCUMENT, else null */
} stillimage_event;

typedef void (*stillimage_event_handler)(void* user, const stillimage_event* event);

/* Asks for the changes in `mask`, 0 for none; takes the place of an earlier subscription. The handler
 * is called from inside stillimage_dispatch and from any call that waits, on the caller's thread; it
 * may not call back into the connection, and what it is given is valid until it returns. So it takes
 * a note, and the work is done when the call has come back. The present state comes as a first event,
 * with changes 0. `user` is handed through. */
STILLIMAGE_API stillimage_result stillimage_subscribe(stillimage_client* client, uint32_t mask,
                                                      stillimage_event_handler handler, void* user,
                                                      int timeout_ms);

/* Waits until the picture is ready: provisional is enough when `provisional` is not 0. A picture that
 * cannot be decoded is never ready: give this a limit, or subscribe and look at `percent`. */
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
}; /* Y 16..235, U and V 16..240 round 128; A 0..255, straight */
enum { STILLIMAGE_MATRIX_BT601 = 1 };

/* One picture: full size or a reduced level. Planes are 8 bits a sample, rows top down. An absent
 * plane has a null pointer and stride, width and height 0: U and V of a monochrome picture, A of an
 * opaque one. Subsampled chroma of a full-size picture is rounded up, that of a reduced level down, to
 * 1 at least: where a pixel of an odd size has no chroma, the last sample before it stands for it. */
typedef struct stillimage_picture {
    const uint8_t* plane[STILLIMAGE_PLANES];
    uint32_t stride[STILLIMAGE_PLANES];       /* bytes from row to row */
    uint32_t plane_width[STILLIMAGE_PLANES];  /* samples of a row that are the picture's */
    uint32_t plane_height[STILLIMAGE_PLANES]; /* rows that are the picture's */
    uint32_t width;                           /* of this picture */
    uint32_t height;
    uint32_t full_width; /* of the item */
    uint32_t full_height;
    uint32_t scale_x; /* of this picture against the full one, 16.16 */
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

/* What the worker said about the frame, and the record in shared memory as it was found. For tools
 * that look at the worker itself; stillimage_picture is what has been made of it. */
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

/* Gets the frame shown at `time_position`, in units of the item's time scale (see stillimage_timeline;
 * 1/100 s for animations; 0 is right for still pictures); behind the end that is the last one. It
 * comes at the level that fits an output of wanted_width x wanted_height best: the full size, or that
 * halved some times. 0 x 0, or anything below 1, is the full size. *frame is to be given to
 * stillimage_frame_release. A worker keeps 1,024 frames for a client.
 *
 * Waits until the picture is ready, as long as the limit allows; with 0 a picture that is not ready is
 * STILLIMAGE_ERROR_NOT_READY at once, and the worker has a second to answer. STILLIMAGE_ERROR_NO_FRAME:
 * the worker has none to give; STILLIMAGE_ERROR_RECORD: a buffer or a description that cannot be
 * believed. A limit that passes leaves the request with the worker, up to 64 of them; to wait in small
 * steps, use stillimage_wait_ready. */
STILLIMAGE_API stillimage_result stillimage_get_frame(stillimage_client* client,
                                                      uint64_t time_position, int32_t wanted_width,
                                                      int32_t wanted_height, int timeout_ms,
                                                      stillimage_frame** frame);

/* Both live as long as the frame, also after the worker has gone or the connection was closed. Never
 * null; of a null frame everything is 0. */
STILLIMAGE_API const stillimage_picture* stillimage_frame_picture(const stillimage_frame* frame);
STILLIMAGE_API const stillimage_descriptor_info*
stillimage_frame_descriptor(const stillimage_frame* frame);

/* Gives the frame back and frees it. Null is fine; so is a frame whose connection was closed. Never
 * waits. */
STILLIMAGE_API void stillimage_frame_release(stillimage_frame* frame);

/* --- timeline --------------------------------------------------------------------------------- */

/* One frame on the timeline. Times are in units of the time scale, `duration` is at least 1. */
typedef struct stillimage_timeline_entry {
    uint64_t start;
    uint64_t duration;
    uint64_t frame_number; /* 1 for the first */
} stillimage_timeline_entry;

/* `scale_numerator` / `scale_denominator` units are a second; both are at least 1. */
typedef struct stillimage_timeline {
    uint32_t scale_numerator;
    uint32_t scale_denominator;
    uint64_t duration;                        /* of all, at least 1 */
    size_t count;                             /* of the entries, at least 1 */
    const stillimage_timeline_entry* entries; /* in the order shown, without gaps */
} stillimage_timeline;

/* Finds out when which frame is shown. Waits until the picture is ready. Frames that are never shown
 * are left out; a still picture has one entry. The worker is asked about three times a frame, some
 * ten thousand times a second. More than 20,000 frames are STILLIMAGE_ERROR_LIMIT. *timeline is null
 * after a failure, else to be given to stillimage_timeline_free; it does not need the connection. */
STILLIMAGE_API stillimage_result stillimage_get_timeline(stillimage_client* client, int timeout_ms,
                                                         const stillimage_timeline** timeline);
STILLIMAGE_API void
stillimage_timeline_free(const stillimage_timeline* timeline); /* null is fine */

/* --- conversions --------------------------------------------------------------------------------
 *
 * Of pictures at hand, into memory of the caller unless it says otherwise. They need no connection
 * and may run in any thread while the frame is held. The picture may also be one that the caller has
 * put together: a size, a Y plane that holds it, both chroma planes or none. STILLIMAGE_ERROR_ARGUMENT
 * is a picture that is not like this, and whatever else makes no sense. */

/* Packed 8-bit pixels, full range, by the BT.601 matrix; alpha is straight. */
enum {
    STILLIMAGE_RGB24 = 1, /* bytes R G B; alpha is left out */
    STILLIMAGE_RGBA32 = 2 /* bytes R G B A; A is 255 when the picture has none */
};

/* Writes the picture as width x height pixels; `stride` bytes from row to row, at least 3 or 4 times
 * the width; bytes behind a row are left as they are. At the picture's own size each chroma sample
 * stands for all pixels that share it, and every colour is exact to the nearest. Any other size is
 * reached by the mean of what a pixel covers where there are fewer, linear between neighbours where
 * there are more, along each axis on its own; colour counts as much as its alpha. So ask
 * stillimage_get_frame for about this size first: the level that fits saves most of the work. */
STILLIMAGE_API stillimage_result stillimage_picture_to_pixels(const stillimage_picture* picture,
                                                              uint32_t format, uint32_t width,
                                                              uint32_t height, uint8_t* pixels,
                                                              size_t stride);

/* Makes a PNG file of the picture at its own size, RGBA when it has alpha, else RGB. *file, to be
 * freed by stillimage_free, is null after a failure. STILLIMAGE_ERROR_SYSTEM: out of memory. */
STILLIMAGE_API stillimage_result stillimage_picture_to_png(const stillimage_picture* picture,
                                                           uint8_t** file, size_t* size);

/* Writes the same file to a descriptor, row by row. It has no time limit: it waits as long as the
 * descriptor makes it, also a non-blocking one. STILLIMAGE_ERROR_SYSTEM with errno set when it cannot
 * be written; SIGPIPE is not raised. What was written before that stays. */
STILLIMAGE_API stillimage_result stillimage_picture_write_png(const stillimage_picture* picture,
                                                              int descriptor);

/* Makes a PNG file of packed pixels, such as stillimage_picture_to_pixels has made. */
STILLIMAGE_API stillimage_result stillimage_pixels_to_png(uint32_t format, uint32_t width,
                                                          uint32_t height, const uint8_t* pixels,
                                                          size_t stride, uint8_t** file,
                                                          size_t* size);

/* Kinds of YUV4MPEG2 streams, all of limited range. 4:2:0 chroma lies between the pixels. */
enum {
    STILLIMAGE_Y4M_MONO = 1,
    STILLIMAGE_Y4M_420 = 2,
    STILLIMAGE_Y4M_422 = 3,
    STILLIMAGE_Y4M_444 = 4,
    STILLIMAGE_Y4M_444_ALPHA = 5
};

/* What all frames of one stream have in common. */
typedef struct stillimage_y4m_stream {
    uint32_t width;
    uint32_t height;
    uint32_t kind; /* STILLIMAGE_Y4M_* */
} stillimage_y4m_stream;

/* The stream that holds the picture as it is; 4:4:4 by repeated chroma when it has alpha or a
 * subsampling that the format does not know. */
STILLIMAGE_API stillimage_result stillimage_y4m_stream_of(const stillimage_picture* picture,
                                                          stillimage_y4m_stream* stream);

/* 1 when the picture can be a frame of the stream, else 0. In one with alpha any picture of the size
 * can, opaque if need be. */
STILLIMAGE_API int stillimage_y4m_fits(const stillimage_picture* picture,
                                       const stillimage_y4m_stream* stream);

/* Writes the stream's first line, NUL-terminated: its rate in frames a second, and the aspect ratio of
 * the picture. 256 bytes always suffice; a buffer that does not is STILLIMAGE_ERROR_ARGUMENT. */
STILLIMAGE_API stillimage_result stillimage_y4m_header(const stillimage_picture* picture,
                                                       const stillimage_y4m_stream* stream,
                                                       uint32_t rate_numerator,
                                                       uint32_t rate_denominator, char* buffer,
                                                       size_t size);

/* Bytes of each frame with its "FRAME" line; 0 for a stream that is none. */
STILLIMAGE_API size_t stillimage_y4m_frame_size(const stillimage_y4m_stream* stream);

/* Writes a frame into `size` bytes, which have to hold stillimage_y4m_frame_size. A picture that does
 * not fit is STILLIMAGE_ERROR_ARGUMENT. */
STILLIMAGE_API stillimage_result stillimage_y4m_frame(const stillimage_picture* picture,
                                                      const stillimage_y4m_stream* stream,
                                                      uint8_t* buffer, size_t size);

/* --- status, metadata, exit ---------------------------------------------------------------------
 */

/* The status document as JSON in UTF-8: the item, the worker, its buffer, what the picture is. *json is
 * NUL-terminated and to be freed by stillimage_free. */
STILLIMAGE_API stillimage_result stillimage_get_status(stillimage_client* client, int timeout_ms,
                                                       char** json);

/* Frees what a call has said is to be freed by it. Null is fine. */
STILLIMAGE_API void stillimage_free(void* memory);

/* Sets a metadata value of the item, such as "aspect ratio" to "16:9", for this worker and those after
 * it. A name has 256 bytes at most, a value 16384. STILLIMAGE_OK: the value is applied and survives the
 * worker's death at any later moment; a power cut within about a second may still cost it. (Workers of
 * protocol 1.0 answer before they store anything.) STILLIMAGE_ERROR_NOT_STORED: it is applied, but
 * could not be stored, stillimage_last_error says why; the worker goes on trying.
 * STILLIMAGE_ERROR_VALUE: the worker does not take this value, or any for this name. */
STILLIMAGE_API stillimage_result stillimage_set_metadata(stillimage_client* client,
                                                         const char* name, const char* value,
                                                         int timeout_ms);

/* Asks the worker to exit. STILLIMAGE_OK once it has agreed; it ends soon after that, for all its
 * clients. */
STILLIMAGE_API stillimage_result stillimage_quit(stillimage_client* client, int timeout_ms);

/* Makes sure that the worker answers, while it decodes as well. */
STILLIMAGE_API stillimage_result stillimage_ping(stillimage_client* client, int timeout_ms);

#ifdef __cplusplus
}
#endif
/* NOLINTEND(modernize-*) */

#endif
