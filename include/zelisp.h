/*
 * zelisp.h - public interface of libzelisp, the user-space library for the
 * ISP camera nodes of the board (/dev/video0..23 and /dev/isp_misc).
 *
 * Handles are the addresses of library objects carried in an unsigned long;
 * 0 is never a valid handle. Every function returns 0 or a negative
 * IspResult unless its comment says otherwise. Nothing is copied on the frame
 * path: a frame is handed over as a 256-byte _isp_buf_t that points into
 * buffers mapped once by isp_init_video.
 */
#ifndef ZELISP_H
#define ZELISP_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

/*
 * The header is C11 as well as C++17. C sees the same records without the
 * namespace (name them struct _isp_buf_t or through the typedefs below), a
 * plain int-sized enum for the results, and every function except the four
 * group functions of the namespace, which are C++ symbols.
 */
#ifdef __cplusplus
#define ZELISP_RECORD(name) zelvideo::name
#else
#include <assert.h>
#include <stdalign.h>
#define ZELISP_RECORD(name) name
#endif

#if defined(ZELISP_BUILDING_LIBRARY)
#define ZELISP_API __attribute__((visibility("default")))
#else
#define ZELISP_API
#endif

/* Result codes shared by every function of the library. */
#ifdef __cplusplus
enum IspResult : int {
#else
enum IspResult {
#endif
    ISP_OK = 0,
    ISP_ERR_SELECT = -1,            /* select() failed with an error other than EINTR */
    ISP_ERR_BUFFER_COUNT = -2,      /* buffer count outside 3..8 */
    ISP_ERR_STATE = -4,             /* object not in a state that allows the call */
    ISP_ERR_NO_NODE = -7,           /* video node missing, or valid-camera table unreadable */
    ISP_ERR_MISSING = -8,           /* something needed is missing or too large */
    ISP_ERR_OPEN = -9,              /* a node could not be opened, or bus ownership refused */
    ISP_ERR_CLOSE = -10,            /* closing the video node failed */
    ISP_ERR_REQUEST = -11,          /* a driver request failed, or a frame was refused */
    ISP_ERR_MAP = -12,              /* mapping a buffer plane failed */
    ISP_ERR_TIMEOUT = -13,          /* no frame within the time limit */
    ISP_ERR_NOT_READY = -14,        /* no filled buffer yet, or the wait was interrupted */
    ISP_ERR_INVALID = -15,          /* invalid argument */
    ISP_ERR_WAIT_INTERRUPTED = -16, /* multi-camera wait interrupted by a signal */
    ISP_ERR_NO_VALID_CAMERA = -17,  /* a group has no valid camera */
};

/*
 * The ISP's limits, as its drivers take them and the library checks them:
 * an application, the simulated driver and the tools all read them here.
 */
enum IspLimit {
    ISP_VIEW_COUNT = 3,          /* views 0, 1 and 2 */
    ISP_VIEW_SIZE_MAX = 65535,   /* the camera driver reports view sizes in 16-bit words */
    ISP_TRIGGER_PARAM1_MAX = 2,  /* trigger_param1 of both trigger modes */
    ISP_TRIGGER_PARAM2_MAX = 7,  /* trigger_param2 of both trigger modes */
    ISP_EXTERNAL_PARAM3_MAX = 2, /* external_param3; internal_param3 takes any value */
};

/* What a line of the library tells, and where the console prints it. */
enum IspMessageKind {
    ISP_MESSAGE_PROGRESS = 0,     /* standard output: what the library did or found */
    ISP_MESSAGE_FAILURE = 1,      /* standard output: what failed or was refused */
    ISP_MESSAGE_SYSTEM_ERROR = 2, /* standard error, as perror prints it: label, ": ", the errno text */
};

#ifdef __cplusplus
namespace zelvideo {
#else
typedef struct _isp_view_buf_t _isp_view_buf_t;
typedef struct _isp_buf_t _isp_buf_t;
typedef struct _view_format_t _view_format_t;
typedef struct _resize_crop_t _resize_crop_t;
typedef struct _resize_scale_t _resize_scale_t;
typedef struct _resize_param_t _resize_param_t;
typedef struct _mec_param_t _mec_param_t;
typedef struct _camera_info_t _camera_info_t;
typedef struct _isp_message_t _isp_message_t;
#endif

/* One view of one capture buffer (72 bytes). */
struct _isp_view_buf_t {
    uint32_t reserved0;
    uint32_t index;       /* V4L2 index of the buffer */
    int32_t fd;           /* DMA-buf descriptor of the plane; -1 when the export failed */
    uint32_t reserved1;
    uint32_t length;      /* size of the plane buffer in bytes */
    uint32_t reserved2;
    void *addr;           /* where the plane is mapped; MAP_FAILED when mapping failed */
    uint64_t timestamp;   /* capture time of the last frame in this buffer, microseconds */
    uint32_t sequence;    /* driver sequence number of that frame */
    uint32_t driver_data; /* the driver's reserved word of the dequeued buffer */
    uint8_t reserved3[24];
};

/* One capture buffer: the frame descriptor of the interface (256 bytes). */
struct _isp_buf_t {
    _isp_view_buf_t views[3]; /* entry k describes view k */
    uint32_t index;           /* V4L2 index; the put functions hand this back */
    uint8_t reserved[36];
};

/* Format of one view (12 bytes). */
struct _view_format_t {
    uint32_t format; /* V4L2 fourcc */
    uint32_t width;
    uint32_t height;
};

struct _resize_crop_t {
    uint16_t x;
    uint16_t y;
    uint16_t width;
    uint16_t height;
};

struct _resize_scale_t {
    uint16_t width; /* 0 together with height 0: no scaling */
    uint16_t height;
};

/* Crop, scale, crop resize record (22 bytes), stored before isp_init_video. */
struct _resize_param_t {
    _resize_crop_t cropBefore;
    _resize_crop_t cropAfter;
    _resize_scale_t scale;
    uint8_t sel;      /* 0, 1 or 2 */
    uint8_t reserved;
};

/* Manual exposure parameters (24 bytes); each is sent as its low 16 bits. */
struct _mec_param_t {
    uint32_t param[6];
};

/*
 * One line the library would print (32 bytes), as handed to a message
 * handler. Every string is the library's and lives only for the call.
 */
struct _isp_message_t {
    int32_t kind;         /* enum IspMessageKind */
    int32_t error_number; /* errno of an ISP_MESSAGE_SYSTEM_ERROR line, 0 for the others */
    const char *text;     /* the line as the console shows it, without its line end */
    const char *label;    /* the perror label of an ISP_MESSAGE_SYSTEM_ERROR line (it may hold a
                             line end of its own), NULL for the others */
    const char *dev_path; /* the camera's node ("/dev/video3") when the line is about one camera,
                             NULL for platform and group lines */
};

/* One record of the platform's valid-camera table (40 bytes), as the driver wrote it. */
struct _camera_info_t {
    uint8_t driver_data[32];
    int32_t camera_index;
    uint8_t driver_data_tail[4];
};

static_assert(sizeof(void *) == 8, "the records carry 64-bit addresses");

static_assert(sizeof(_isp_view_buf_t) == 72, "_isp_view_buf_t is 72 bytes");
static_assert(offsetof(_isp_view_buf_t, index) == 4, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, fd) == 8, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, length) == 16, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, addr) == 24, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, timestamp) == 32, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, sequence) == 40, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, driver_data) == 44, "_isp_view_buf_t layout");
static_assert(offsetof(_isp_view_buf_t, reserved3) == 48, "_isp_view_buf_t layout");

static_assert(sizeof(_isp_buf_t) == 256, "_isp_buf_t is 256 bytes");
static_assert(alignof(_isp_buf_t) == 8, "_isp_buf_t is 8-byte aligned");
static_assert(offsetof(_isp_buf_t, views) == 0, "_isp_buf_t layout");
static_assert(offsetof(_isp_buf_t, index) == 216, "_isp_buf_t layout");
static_assert(offsetof(_isp_buf_t, reserved) == 220, "_isp_buf_t layout");

static_assert(sizeof(_view_format_t) == 12, "_view_format_t is 12 bytes");
static_assert(offsetof(_view_format_t, width) == 4, "_view_format_t layout");
static_assert(offsetof(_view_format_t, height) == 8, "_view_format_t layout");

static_assert(sizeof(_resize_param_t) == 22, "_resize_param_t is 22 bytes");
static_assert(offsetof(_resize_param_t, cropBefore) == 0, "_resize_param_t layout");
static_assert(offsetof(_resize_param_t, cropAfter) == 8, "_resize_param_t layout");
static_assert(offsetof(_resize_param_t, scale) == 16, "_resize_param_t layout");
static_assert(offsetof(_resize_param_t, sel) == 20, "_resize_param_t layout");
static_assert(offsetof(_resize_param_t, reserved) == 21, "_resize_param_t layout");

static_assert(sizeof(_mec_param_t) == 24, "_mec_param_t is 24 bytes");

static_assert(sizeof(_isp_message_t) == 32, "_isp_message_t is 32 bytes");
static_assert(offsetof(_isp_message_t, error_number) == 4, "_isp_message_t layout");
static_assert(offsetof(_isp_message_t, text) == 8, "_isp_message_t layout");
static_assert(offsetof(_isp_message_t, label) == 16, "_isp_message_t layout");
static_assert(offsetof(_isp_message_t, dev_path) == 24, "_isp_message_t layout");

static_assert(sizeof(_camera_info_t) == 40, "_camera_info_t is 40 bytes");
static_assert(offsetof(_camera_info_t, camera_index) == 32, "_camera_info_t layout");
static_assert(offsetof(_camera_info_t, driver_data_tail) == 36, "_camera_info_t layout");

#ifdef __cplusplus
/* Group operations that take public records (C++ symbols). */
ZELISP_API int isp_group_set_view_format(unsigned long group, int view, _view_format_t view_format);
ZELISP_API int isp_group_get_view_format(unsigned long group, int view, _view_format_t *formats);
ZELISP_API int isp_group_get_sync_frame(unsigned long group, _isp_buf_t *frames, int frame_count,
                                        int timeout_ms);
/*
 * Gives back one frame per member, frames[i] to member position i. Like the
 * sync read it refuses a frame_count below the member count ("buffers sum
 * less than camera_count!", -8) and gives nothing back. After a sync read
 * that failed at a later member, give the earlier members' frames back one
 * by one (isp_group_get_camera_handle, isp_put_frame_buf).
 */
ZELISP_API int isp_group_put_frame(unsigned long group, _isp_buf_t *frames, int frame_count);

} // namespace zelvideo

extern "C" {
#endif

/*
 * ---- Where the library's lines go ----
 * By default the library prints its progress and failure lines on standard
 * output and its perror lines on standard error. A message handler receives
 * every such line instead, nothing being printed: on the thread whose
 * library call made it, before that call returns. Setting a handler is
 * thread-safe and process-wide; NULL restores the console. Once
 * isp_set_message_handler has returned, the handler it replaced is not
 * running and will not be called again, so its user data may be freed.
 * The handler must not call back into the library, and whoever calls
 * isp_set_message_handler must not hold a lock that a running handler waits
 * for (an interpreter lock, say): a handler call in progress is waited for.
 * errno is the same after the handler as before it.
 */
typedef void (*isp_message_handler_t)(const ZELISP_RECORD(_isp_message_t) *message, void *user);
ZELISP_API void isp_set_message_handler(isp_message_handler_t handler, void *user);

/* ---- Library and camera handles ---- */
ZELISP_API const char *isp_get_sdk_version(void);
/* Words for a result code; a constant string, also for unknown codes. */
ZELISP_API const char *isp_get_result_text(int result);
/* Returns the camera handle, or 0 (bad index or mode, or the node could not be opened). */
ZELISP_API unsigned long isp_open_video(uint32_t camera_index, int32_t mode);
ZELISP_API int isp_close_video(unsigned long handle);
ZELISP_API int isp_camera_get_native_fd(unsigned long handle, int64_t *fd);

/* ---- Stream setup, resize ---- */
ZELISP_API int isp_init_video(unsigned long handle, uint32_t combination, int32_t buffer_num);
ZELISP_API int isp_resize_resolution(unsigned long handle, const ZELISP_RECORD(_resize_param_t) *param);

/* ---- Capture and frames ---- */
ZELISP_API int isp_start_capture(unsigned long handle);
ZELISP_API int isp_stop_capture(unsigned long handle);
ZELISP_API int isp_get_frame_buf(unsigned long handle, ZELISP_RECORD(_isp_buf_t) *buf, int32_t timeout_ms);
ZELISP_API int isp_put_frame_buf(unsigned long handle, const ZELISP_RECORD(_isp_buf_t) *buf);
ZELISP_API int isp_put_frame_buf_by_index(unsigned long handle, int32_t index);

/* ---- Views ---- */
ZELISP_API int isp_get_view_format(unsigned long handle, uint32_t view, ZELISP_RECORD(_view_format_t) *format);
/*
 * Asks the driver for a view's format (fourcc, width, height) before
 * isp_init_video sizes the buffers from it: states opened and set up only
 * ("SetViewFormat: bad state %d", -4, while capturing). -15 for handle 0, a
 * NULL format or a view above 2. A refusal by the driver prints the node
 * path + " set view format failed" and perror "set format", -11. The driver
 * may adjust the format; read it back with isp_get_view_format.
 */
ZELISP_API int isp_set_view_format(unsigned long handle, uint32_t view, const ZELISP_RECORD(_view_format_t) *format);
/* Returns the DMA-buf descriptor (owned by the camera) or a negative result. */
ZELISP_API int isp_get_view_buf_fd(unsigned long handle, uint32_t buffer_index, uint32_t view);

/* ---- Frame decimation ---- */
ZELISP_API int isp_set_frame_drop_num(unsigned long handle, int32_t total_num, int32_t drop_num);
ZELISP_API int isp_get_expected_frame(unsigned long handle, ZELISP_RECORD(_isp_buf_t) *buf, int32_t timeout_ms);

/* ---- Picture controls ---- */
ZELISP_API int isp_camera_set_brightness(unsigned long handle, uint32_t value);
ZELISP_API int isp_camera_get_brightness(unsigned long handle, uint32_t *value);
ZELISP_API int isp_camera_set_contrast(unsigned long handle, uint32_t value);
ZELISP_API int isp_camera_get_contrast(unsigned long handle, uint32_t *value);
ZELISP_API int isp_camera_set_saturation(unsigned long handle, uint32_t value);
ZELISP_API int isp_camera_get_saturation(unsigned long handle, uint32_t *value);
ZELISP_API int isp_camera_set_hue(unsigned long handle, uint32_t value);
ZELISP_API int isp_camera_get_hue(unsigned long handle, uint32_t *value);
ZELISP_API int isp_camera_set_gamma(unsigned long handle, uint32_t value);
ZELISP_API int isp_camera_get_gamma(unsigned long handle, uint32_t *value);
ZELISP_API int isp_camera_set_sharpness(unsigned long handle, uint32_t value);
ZELISP_API int isp_camera_get_sharpness(unsigned long handle, uint32_t *value);

/* ---- Denoise, exposure, white balance, abnormal information ---- */
ZELISP_API int isp_camera_set_denoise(unsigned long handle, uint32_t luma, uint32_t chroma);
ZELISP_API int isp_camera_get_denoise(unsigned long handle, uint32_t *luma, uint32_t *chroma);
ZELISP_API int isp_camera_set_awb(unsigned long handle, uint8_t value);
ZELISP_API int isp_camera_get_awb(unsigned long handle, uint8_t *value);
ZELISP_API int isp_camera_set_mwb(unsigned long handle, uint32_t gain1, uint32_t gain2, uint32_t gain3);
ZELISP_API int isp_camera_set_aec(unsigned long handle, uint8_t value);
ZELISP_API int isp_camera_get_aec(unsigned long handle, uint8_t *value);
ZELISP_API int isp_camera_set_mec(unsigned long handle, const ZELISP_RECORD(_mec_param_t) *param);
/* info: a buffer of at least 14 bytes, filled by the driver. */
ZELISP_API int isp_camera_get_abnormal_info(unsigned long handle, void *info);

/* ---- Platform: discovery, sensor bus, trigger modes ---- */
ZELISP_API int isp_get_valid_camera_count(uint32_t *count);
ZELISP_API int isp_get_valid_camera_info(ZELISP_RECORD(_camera_info_t) *info, uint32_t camera_num, uint32_t *count);
ZELISP_API int isp_set_i2c_ctrl(uint32_t camera_index, uint32_t i2c_bus_ctrler);
ZELISP_API int isp_set_internal_trigger(unsigned long handle, uint32_t trigger_param1, uint32_t trigger_param2,
                                        uint32_t internal_param3);
ZELISP_API int isp_set_external_trigger(unsigned long handle, uint32_t trigger_param1, uint32_t trigger_param2,
                                        uint32_t external_param3);
ZELISP_API int isp_group_set_internal_trigger(unsigned long group, uint32_t trigger_param1,
                                              uint32_t trigger_param2, uint32_t internal_param3);
ZELISP_API int isp_group_set_external_trigger(unsigned long group, uint32_t trigger_param1,
                                              uint32_t trigger_param2, uint32_t external_param3);

/* ---- Multi-camera wait: returns the number of ready cameras (> 0) or a negative result ---- */
ZELISP_API int isp_camera_wait_for_data(const unsigned long *handles, int *ready, int count,
                                        struct timeval *timeout);

/*
 * ---- Camera groups ----
 * A creation that fails hands nothing out and leaves nothing behind (group
 * object, member cameras made so far, /dev/isp_misc descriptor); *group
 * keeps its value. The group functions take the handle a creator gave out
 * and do not test it; NULL pointer arguments are refused with -15.
 * isp_group_get_video_info refuses a camera index that the platform's table
 * does not list with -15 ("camera_index is invailed !!!"), *info untouched.
 */
ZELISP_API int isp_create_empty_video_group(unsigned long *group, uint32_t group_type, const char *name,
                                            int camera_count);
ZELISP_API int isp_create_video_group(unsigned long *group, uint32_t group_type, const char *name,
                                      const int *camera_index_list, int camera_count);
ZELISP_API int isp_get_single_camera_handle(unsigned long group, int camera_index);
ZELISP_API int isp_group_get_video_handle(unsigned long group, int camera_index);
ZELISP_API int isp_group_get_video_info(unsigned long group, int camera_index, ZELISP_RECORD(_camera_info_t) *info);
ZELISP_API int isp_group_open_video(unsigned long group, int mode, int *open_results);
ZELISP_API int isp_group_init_video(unsigned long group, uint32_t combination, uint32_t buffer_num);
ZELISP_API int isp_group_start_captrue(unsigned long group);
ZELISP_API int isp_group_stop_captrue(unsigned long group);
ZELISP_API int isp_group_close_video(unsigned long group);
/*
 * The camera handle of member camera_index, for the per-camera functions
 * (picture controls, single frames, isp_put_frame_buf for the frames of an
 * incomplete frame set). The group keeps owning the camera: never pass this
 * handle to isp_close_video. Valid until isp_destroy_video_group; the camera
 * is usable once the group has opened it.
 * Refusals, with the membership lookup's messages (perror):
 *   -15 group 0 or handle NULL (nothing printed);
 *   -4  "Haven't create group !!!" for a closed group, "Empty group !!!" for
 *       a group made by isp_create_empty_video_group;
 *   -15 "camera_index is invailed !!!" for an index that is not a member.
 * A group handle is an address, so an unknown group cannot be recognised:
 * "unknown" can only mean a camera index that is not in the group. *handle
 * is written only on success.
 */
ZELISP_API int isp_group_get_camera_handle(unsigned long group, int camera_index, unsigned long *handle);
/*
 * Frees a group in any state, closed and empty groups included: member
 * cameras still open are closed first (a failed isp_group_open_video leaves
 * some open), then /dev/isp_misc is closed and every member camera object is
 * released, a repeated member once. Returns 0, also when a member's close
 * fails (its line is printed); -15 for group 0. A group handle is an
 * address, so an unknown or already destroyed handle cannot be recognised
 * and must not be passed. The group handle and the member camera handles are
 * invalid afterwards.
 */
ZELISP_API int isp_destroy_video_group(unsigned long group);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZELISP_H */
