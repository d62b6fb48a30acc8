/*
 * zelisp_sim/sim.h - control API of the simulated ISP driver.
 *
 * libzelisp-sim.so stands in for the board's kernel drivers: it interposes
 * libc's stat/open/close/dup/fcntl/ioctl/mmap family for /dev/video0..23 and
 * /dev/isp_misc and answers like the ISP's V4L2 camera driver and platform
 * driver do. A program reaches it unmodified through LD_PRELOAD (or the
 * zelisp-sim-run runner); tests link it and steer it through this API.
 *
 * Nodes: camera c (0..11) appears as /dev/video<c> (mode 1, up to three views
 * as planes) and /dev/video<c+12> (mode 2, one plane carrying view 0). With no
 * configuration cameras 0..3 are present.
 *
 * Every function here is thread-safe; none blocks on the hardware thread.
 */
#ifndef ZELISP_SIM_SIM_H
#define ZELISP_SIM_SIM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zsim {

/* True when the simulator's entry points are the ones the process calls
 * (linked or preloaded in front of libc). Every test fixture asserts it, so
 * that no test can reach a real device. */
bool active();

/* Back to the defaults: cameras 0..3 present with default configuration,
 * /dev/isp_misc present, no faults, no quirks, empty log, free-running frames,
 * counters zero, sequence numbers from 0, every camera plugged in, the
 * board's shared state (controls, set-ups, trigger mode, queue claims) at its
 * start. Descriptors and mappings still held by the program stay valid and
 * tracked. */
void reset();

/* Loads a configuration file (the format zelisp-sim-run and ZELISP_SIM_CONFIG
 * use). Returns false and fills *error on a parse error. */
bool load_config(const std::string &path, std::string *error);

/* ---------------------------------------------------------------- nodes */

enum class NodeKind {
    Missing,     /* stat fails with ENOENT */
    CharDevice,  /* the normal case */
    RegularFile, /* looks like a plain file (open works, it is not a device) */
    Directory,
};

/* path is "/dev/videoN" or "/dev/isp_misc". Making a video node a
 * CharDevice does not add a camera; use set_camera for that. */
void set_node_kind(const std::string &path, NodeKind kind);
/* open() of the node fails with err (0: opens normally). */
void set_open_errno(const std::string &path, int err);
/* close() of a descriptor of the node fails with err, after really closing
 * it as Linux does (0: closes normally). */
void set_close_errno(const std::string &path, int err);

/* -------------------------------------------------------------- cameras */

constexpr uint32_t fourcc(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}
constexpr uint32_t kNV12 = fourcc('N', 'V', '1', '2');
constexpr uint32_t kNV21 = fourcc('N', 'V', '2', '1');
constexpr uint32_t kYUYV = fourcc('Y', 'U', 'Y', 'V');
constexpr uint32_t kRGB24 = fourcc('R', 'G', 'B', '3');
constexpr uint32_t kGREY = fourcc('G', 'R', 'E', 'Y');

struct ViewFormat {
    uint32_t fourcc;
    uint32_t width;
    uint32_t height;
};

struct CameraConfig {
    /* The view combination the ISP supports (reported by VIDIOC_ENUMINPUT);
     * S_INPUT refuses an input with a view bit outside it. */
    uint32_t supported_combination = 7;
    ViewFormat views[3] = {{kNV12, 1920, 1080}, {kNV12, 1280, 720}, {kNV12, 640, 360}};
    uint32_t sensor_width = 1920; /* S_FMT refuses larger views */
    uint32_t sensor_height = 1080;
    uint32_t fps = 30;            /* free-running frame rate, 1..240 */
    uint32_t max_buffers = 16;    /* REQBUFS grants at most this many */
    /* The scene instead of the colour bars: a Y4M video (looped), a PNG or
     * JPEG still, or a folder of stills in name order, one per frame. A
     * source that cannot be decoded leaves the colour bars. */
    std::string source;
    /* Sensor noise, standard deviation in 8-bit code values before the
     * denoise stage (0: none). */
    uint32_t noise = 0;
    /* Faults of the free-running frames, as a flaky sensor or link has them:
     * the percentage of frames lost at random (0..100, as if no buffer were
     * queued); every error_every-th frame's buffer handed back with
     * V4L2_BUF_FLAG_ERROR (0: none); the camera unplugged when
     * disconnect_after frames have ended since VIDIOC_STREAMON (0: never). */
    uint32_t drop_percent = 0;
    uint32_t error_every = 0;
    uint32_t disconnect_after = 0;
};

/* Adds (or reconfigures) camera c: nodes /dev/video<c> and /dev/video<c+12>
 * become character devices. A node with open descriptors keeps its buffers
 * and stream; the new formats apply from the next S_FMT/G_FMT. */
void set_camera(int camera, const CameraConfig &config);
/* Removes camera c: both nodes become Missing. */
void remove_camera(int camera);
/* Unplugs camera c, for every process of the board, as a USB camera is
 * pulled out while streaming: its nodes vanish (stat and open: ENOENT),
 * every request on a descriptor still open answers ENODEV (close works),
 * read and write too, and select and poll report the descriptors ready
 * with an error (POLLERR | POLLHUP). reset() plugs it back. */
void disconnect_camera(int camera);
CameraConfig camera_config(int camera);

/* -------------------------------------------------------------- frames */

enum class FrameMode {
    FreeRunning, /* the hardware thread produces frames at the camera's fps */
    Scripted,    /* frames come only from push_frame */
};
/* Per node number (0..23). */
void set_frame_mode(int node, FrameMode mode);

struct ScriptedFrame {
    uint32_t sequence = 0;
    uint64_t timestamp_us = 0;   /* goes out as the buffer's timeval */
    uint32_t reserved = 0;       /* the v4l2_buffer's last word */
    /* Plane lengths reported by DQBUF; 0 = the plane's real length. */
    uint32_t plane_length[3] = {0, 0, 0};
    bool paint = false;          /* draw the test pattern into the buffer */
    bool error = false;          /* hand the buffer back with V4L2_BUF_FLAG_ERROR */
};
/* Queues a scripted frame on node: it fills the next queued buffer as soon
 * as the node streams and has a buffer queued (in push order), making the
 * node's descriptor readable. */
void push_frame(int node, const ScriptedFrame &frame);
/* Scripted frames still waiting for a buffer. */
size_t pending_frames(int node);

struct Counters {
    uint64_t produced;  /* frame periods since stream-on (free-running) or frames pushed */
    uint64_t delivered; /* frames dequeued by the program */
    uint64_t dropped;   /* frames lost because no buffer was queued */
};
Counters counters(int node);

/* --------------------------------------------------------- controls */

/* Current value of a control of camera c's driver (user class, camera class
 * or the ISP's private ids); false when the id is unknown. */
bool control_value(int camera, uint32_t id, int32_t *value);
bool set_control_value(int camera, uint32_t id, int32_t value);
/* The last 36-byte payload set for ISP_CID_MWB or ISP_CID_MEC
 * (driver/isp_requests.h); all zero until one is set. */
std::vector<uint8_t> manual_payload(int camera, uint32_t id);
/* The 14 bytes VIDIOC_ISP_GET_ABNORMAL_INFO returns for camera c. */
void set_abnormal_info(int camera, const uint8_t info[14]);

/* ------------------------------------------------------- platform node */

/* The valid-camera count /dev/isp_misc reports; -1 (default) reports the
 * configured cameras. Values above 12 are reported as given. */
void set_valid_camera_count(int count);
/* The 40-byte record of table slot i as the driver fills it. */
std::vector<uint8_t> camera_info_record(int slot);

enum class TriggerMode { None, Internal, External };
/* The trigger mode set last through /dev/isp_misc; with a mode set, every
 * camera's frame clock runs in lock-step (identical frame timestamps), on
 * the board's trigger ticks, or in external mode on the pulses of the
 * trigger line the board is wired to (set_trigger_line). */
TriggerMode trigger_mode();
/* Sets the mode as the platform driver's request does (None: no mode). */
void set_trigger_mode(TriggerMode mode);
/* Who drives camera c's sensor bus, as IOC_SET_I2C_CTRL last set it: 0 the
 * ISP, 1 the ARM side, -1 not set since reset(). */
int sensor_bus_owner(int camera);

/* ---------------------------------------------------------- board clock */

/* The board's clocks against the host's: offset_ns ahead when the board
 * started (negative: behind), then running drift_ppb parts per billion fast
 * (negative: slow), as an undisciplined oscillator does. The monotonic,
 * boot-time, real-time and TAI clocks that the process reads through the C
 * library (clock_gettime, gettimeofday, time, timespec_get) follow it, and
 * so do the frames' timestamps; deadlines of absolute waits (clock_nanosleep
 * with TIMER_ABSTIME, timed condition, semaphore, mutex and futex waits) are
 * taken on the board's clocks. Relative waits are not scaled. Drift is held
 * within 1000 ppm. reset() puts the board back on the host's time. */
struct BoardClock {
    int64_t offset_ns = 0;
    int32_t drift_ppb = 0;
};
void set_board_clock(const BoardClock &clock);
BoardClock board_clock();
/* The host's CLOCK_MONOTONIC time, in nanoseconds, at which the board
 * started: its clocks drift from there. Every process of a board has the
 * same (zelisp-sim-run sets it; a process started without it starts a board
 * of its own and hands the instant down to its children). */
int64_t board_start_ns();

/* --------------------------------------------------------- trigger line */

/* The board's sensors wired to a trigger line shared by boards: a
 * sync-pulse generator whose pulses come at the host's CLOCK_MONOTONIC
 * instants phase_ns + k x period_ns (k whole), the same for every board
 * (every runner on the machine) that names the line. In external trigger
 * mode the board's cameras take their frames on its pulses, delay_ns after
 * them, each camera at the first pulse once 99% of its frame period has
 * passed since its last frame; the frames are stamped with the board's
 * clock. An empty name (or a period of 0) unwires the board. */
struct TriggerLine {
    std::string name;
    uint64_t period_ns = 0;
    uint64_t phase_ns = 0; /* taken modulo the period */
    uint64_t delay_ns = 0;
};
void set_trigger_line(const TriggerLine &line);
TriggerLine trigger_line();

/* ---------------------------------------------------------- request log */

/* Pseudo request numbers for the log and for faults, next to real ioctl
 * request numbers. */
constexpr uint32_t kOpen = 0xF0000001;
constexpr uint32_t kClose = 0xF0000002;
constexpr uint32_t kMmap = 0xF0000003;
constexpr uint32_t kMunmap = 0xF0000004;

struct LogEntry {
    std::string path;           /* "/dev/video3", "/dev/isp_misc", or an export's path */
    uint32_t request;           /* ioctl request (32 bits) or a pseudo request */
    std::string name;           /* "VIDIOC_S_FMT", "open", "mmap", ... */
    std::string detail;         /* decoded fields, e.g. "view=2 width=640 height=360 fourcc=NV12" */
    std::vector<uint8_t> raw;   /* the argument record as the program sent it */
    int error;                  /* errno the driver answered with; 0 = success */
};
/* The log keeps the latest `entries` requests (0: records nothing). It
 * starts off in a program that never calls this API (one run under
 * zelisp-sim-run, unless ZELISP_SIM_LOG=N is set); reset() turns it on at
 * 4096 entries. A test that reads a longer log raises the limit. */
void set_log_limit(size_t entries);
std::vector<LogEntry> request_log();
void clear_log();
/* Entries of one request number, in order. */
std::vector<LogEntry> requests(uint32_t request);

/* ------------------------------------------------------------- faults */

/* The nth (1-based, counted from now) occurrence of request on path (empty:
 * any node) fails with err. count consecutive occurrences fail from there. */
void fail_request(uint32_t request, int nth, int err, const std::string &path = "", int count = 1);
/* The next occurrences of request fail with EINTR `times` times before one
 * goes through (repeats for every later occurrence when sticky is true). */
void interrupt_request(uint32_t request, int times, const std::string &path = "", bool sticky = false);
void clear_faults();

/* Driver misbehaviour, for robustness tests; all off after reset(). */
struct Quirks {
    int grant_buffers = -1;            /* REQBUFS grants exactly this many (-1: honest) */
    bool restart_sequence_on_streamon = false; /* sequence starts at 0 on each STREAMON */
    int dequeue_index = -1;            /* DQBUF reports this index instead of the real one */
    int extra_planes = 0;              /* QUERYBUF/DQBUF report more planes than enabled */
    int descriptor_floor = 0;          /* node and export descriptors are >= this (e.g. 1024) */
};
void set_quirks(int node, const Quirks &quirks);

/* ------------------------------------------------------- leak tracking */

/* Descriptors of simulated nodes and exports the program still holds. */
size_t live_descriptors();
/* Mappings of simulated buffers the program still holds. */
size_t live_mappings();

} // namespace zsim

#endif
