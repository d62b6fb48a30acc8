/*
 * core.h - the simulator core's state: the nodes, the cameras behind them,
 * the descriptor and mapping tables, the request log and the faults, all
 * behind one lock.
 *
 * Everything here is reached with State::lock held unless a function says
 * otherwise. The core never blocks with the lock held: a blocking dequeue
 * and the hardware thread's sleep both release it.
 */
#ifndef ZELISP_SIM_CORE_H
#define ZELISP_SIM_CORE_H

#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include <linux/videodev2.h>

#include "isp_pipeline.h"
#include "sim_internal.h"

namespace zsim::detail {

constexpr int kCameras = 12;
constexpr int kVideoNodes = 24;     // camera c: mode 1 node c, mode 2 node c + 12
constexpr int kMiscNode = kVideoNodes;
constexpr int kNodes = kVideoNodes + 1;
constexpr int kMaxPlanes = 3;
constexpr unsigned kVideoMajor = 81; // the V4L2 character major
constexpr unsigned kMiscMajor = 10;  // the misc-device major
constexpr unsigned kMiscMinor = 121;

// One plane of a capture buffer: a memfd stands in for the driver's DMA
// memory, so every mapping and every export of it shares the same pages.
struct Plane {
    int memfd = -1;
    uint8_t *data = nullptr; // the driver's own view, for painting
    // Owns that view (and the memfd): a frame painted outside the lock
    // keeps the memory alive should the program free the buffers meanwhile.
    std::shared_ptr<uint8_t> memory;
    size_t length = 0;       // page-aligned
    ViewFormat format{};
    uint64_t id = 0;         // unique: mappings and exports name their plane by it
    int users = 0;           // the program's mappings and export descriptors of it
    uint64_t image_id = 0;   // the processed image the plane holds (0: none)
    uint32_t block = kBandUnknown; // where its moving block stands (see paint_frame)
};

// Painting: the frame has ended, and its pixels are being written with the
// lock released (frame_painting.cpp); to the program it is still queued.
enum class BufferState { User, Queued, Painting, Filled };

// What ends a free-running camera's frames (hardware_thread.cpp).
enum class FramePacing { Sensor, BoardTick, LinePulse };

struct OpenFile;

struct Buffer {
    std::vector<Plane> planes;
    BufferState state = BufferState::User;
    uint32_t sequence = 0;
    uint64_t timestamp_ns = 0;
    uint32_t reserved = 0;
    uint32_t reported_length[kMaxPlanes] = {0, 0, 0};
    bool error = false; // handed back with V4L2_BUF_FLAG_ERROR
};

struct Node {
    NodeKind kind = NodeKind::Missing;
    int open_errno = 0;
    int close_errno = 0;
    int event_fd = -1; // readable while a filled buffer waits; never closed
    Quirks quirks;
    FrameMode frame_mode = FrameMode::FreeRunning;
    int open_files = 0; // live descriptors that name the node

    std::vector<Buffer> buffers;
    std::deque<int> queued; // in the order the program queued them
    std::deque<int> filled; // in the order the hardware filled them
    bool streaming = false;
    // Changes whenever the queue is reset (stream off, buffers freed), so
    // that a frame painted meanwhile is not delivered into the new queue.
    uint64_t queue_generation = 0;
    uint32_t next_sequence = 0;
    uint64_t frames_streamed = 0;      // frame periods since stream-on
    uint32_t drop_lottery = 0;         // the random drops' generator
    uint64_t period_ns = 0;            // of the sensor, board time
    FramePacing pacing = FramePacing::Sensor;
    uint64_t next_due_ns = 0;          // the host's time the next frame ends
    int64_t frame_end_board_ns = 0;    // the same on the board's monotonic clock
    std::deque<ScriptedFrame> script;
    Counters counters{0, 0, 0};
    // The open file that allocated the buffers: only it may use the queue
    // (queue_ownership.cpp), as with the kernel's buffer framework.
    std::weak_ptr<OpenFile> queue_owner;
};

struct Camera {
    bool present = false;
    CameraConfig config;
    uint32_t input = 7; // the view combination in force
    CameraIsp isp;
    uint32_t setup_seen = 0;  // the board's set-up version this copy holds (board_setup.cpp)
    bool resize_mine = false; // this process set view 1's resize
};

// What a program's descriptor refers to. Descriptors made by dup share
// one OpenFile, as they share one open file description in the kernel.
struct OpenFile {
    int node = -1;        // -1: a buffer export
    uint64_t plane = 0;   // an export's plane (Plane::id)
    int flags = 0;        // O_ACCMODE | O_NONBLOCK as the program set them
    std::string path;
    bool plain = false;   // a node that looks like a file or directory
    // What the kernel's V4L2 core keeps per open file: its access priority
    // (V4L2_PRIORITY_DEFAULT) and its event subscriptions and queue.
    uint32_t priority = 2;
    std::vector<v4l2_event_subscription> subscriptions;
    std::deque<v4l2_event> events;
    uint32_t event_sequence = 0;
};

struct Mapping {
    size_t length = 0;
    std::string path;
    uint64_t plane = 0; // Plane::id
};

// One request as recorded: the name and the detail of frequent requests
// are formatted only when the log is read.
struct LoggedRequest {
    LogEntry entry;
    const char *format = nullptr;
    uint32_t values[3] = {0, 0, 0};
};

struct Fault {
    uint32_t request;
    std::string path;
    bool interrupt;  // EINTR storm rather than a failure
    int skip;        // occurrences to let through before the first fault
    int remaining;   // faults still to inject
    int err;
    int times;       // EINTR storm: interruptions per occurrence
    bool sticky;
};

// One plane of a frame to paint: what it shows, planned with the lock held
// and painted without it.
struct PlanePaint {
    std::shared_ptr<uint8_t> memory;
    size_t length = 0;
    ViewFormat format{};
    uint32_t sequence = 0;
    int camera = 0, view = 0;
    std::shared_ptr<const ViewImage> image; // the processed image it shows
    bool build = false;                     // the image is to be built first, from:
    ViewRecipe recipe;
    uint64_t generation = 0;                //   the settings it is built for
    std::shared_ptr<const NoiseTiles> noise;
    bool copy_image = false;                // the plane does not hold the image yet
    uint32_t block = kBandUnknown;          // the moving block's place, before and after
    uint64_t image_id = 0;                  // what the plane holds after
};

struct FrameJob {
    int node = 0;
    int index = 0;
    uint64_t queue_generation = 0;
    PlanePaint planes[kMaxPlanes]; // in place: a frame allocates nothing
    size_t plane_count = 0;
};

struct State {
    std::mutex lock;
    std::condition_variable wake; // the hardware thread's alarm
    Node nodes[kNodes];
    Camera cameras[kCameras];
    std::map<int, std::shared_ptr<OpenFile>> descriptors;
    std::map<uintptr_t, Mapping> mappings;
    std::deque<LoggedRequest> log;
    size_t log_limit = 0; // entries kept; 0: nothing is recorded
    std::vector<Fault> faults;
    std::thread hardware;
    pid_t hardware_pid = 0;
    time_t created = time(nullptr); // the nodes' times: when the driver loaded
    bool stopping = false;
    TriggerLine line; // the trigger line the board is wired to (none: empty name)
    std::vector<FrameJob> paint_jobs; // ended frames waiting to be painted
    std::vector<FrameJob> spare_jobs; // an emptied list kept for its room
};

// The one state, created on first use (interposed calls can come before
// any constructor of this library has run) and never destroyed.
State &state();
void apply_defaults(State &s);

// Keeps the lock's holder from re-entering the core through an interposed
// call (an allocator that maps memory, a stream that closes a file).
bool inside_core();
class CoreLock {
public:
    CoreLock();
    ~CoreLock();
    CoreLock(const CoreLock &) = delete;
    CoreLock &operator=(const CoreLock &) = delete;
    std::unique_lock<std::mutex> &guard() { return guard_; }
    void unlock();
    void lock();

private:
    std::unique_lock<std::mutex> guard_;
};

// ---- nodes.cpp
int node_of_path(const char *path); // -1 when the path is no simulated node
std::string node_path(int node);
int camera_of_node(int node);       // -1 for /dev/isp_misc
dev_t node_rdev(int node);
void fill_node_stat(int node, struct stat *st);
void reset_nodes(State &s);

// ---- request_log.cpp
std::string request_name(uint32_t request);
bool logging(const State &s); // false: skip building entries
void append_log(State &s, LogEntry entry, const LogNote *note = nullptr);
constexpr size_t kTestLogLimit = 4096; // what reset() sets: tests read short logs
// The end of every simulated call: logs the entry with the errno answered,
// then returns result, or -1 with errno set.
int finish_request(State &s, LogEntry entry, int err, int result, const LogNote *note = nullptr);
// Consumes one occurrence of request on path; returns the errno to inject
// (0: none).
int take_fault(State &s, uint32_t request, const std::string &path);

// ---- dispatch.cpp: a request on any descriptor; *handled false when the
// descriptor is not simulated. The probe request on descriptor -1 answers
// kProbeAnswer, so that zsim::active() can tell that the process's ioctl
// really reaches this library. It encodes its true 4-byte size: sanitizers
// in front of ioctl check the record against it.
constexpr uint32_t kProbeRequest = 0x8004F05A; // _IOR(0xF0, 0x5A, uint32_t)
constexpr uint32_t kProbeAnswer = 0x5A5A1D0E;
int dispatch_ioctl(int fd, uint32_t request, void *arg, bool *handled);

// ---- uevent.cpp: the sysfs record that names a node's device.
FILE *sim_fopen(const char *path, const char *mode, bool *handled);

// ---- camera_disconnect.cpp: a camera unplugged while streaming, as a USB
// camera is removed. Its nodes vanish, every request on a descriptor that
// is left answers ENODEV, and select and poll report it as an error.
bool camera_disconnected(int camera);
bool node_disconnected(int node); // false for /dev/isp_misc
// Any camera of the board unplugged: one relaxed load, for select and poll.
bool any_camera_disconnected();
void disconnect(State &s, int camera);
void reconnect_cameras(); // every camera of the board plugged in again
// A stream of this process on a camera unplugged by any process of the
// board stops, and its waiters wake.
void stop_disconnected_stream(Node &n);

// ---- descriptors.cpp
// Whether fd may be a simulated descriptor, without the lock (read and
// write ask it for every descriptor); a true answer is checked with it.
bool maybe_simulated(int fd);
// The errno read() or write() on a simulated descriptor answer; 0 when fd
// is not one.
int sim_read_write(int fd);
bool descriptor_disconnected(int fd); // a node of an unplugged camera
enum DupHow { kDupAny, kDupOnto }; // dup, or dup2/dup3 onto a chosen number
int sim_open(int dirfd, const char *path, int flags, mode_t mode);
// -1 with errno set, or 0, or 1 when fd is not simulated (pass through).
int sim_close(int fd);
int sim_dup(int oldfd, int newfd, int flags, int how);
int sim_fcntl(int fd, int cmd, unsigned long arg, bool *handled);
bool sim_fstat(int fd, struct stat *st);
bool sim_stat(const char *path, struct stat *st, int *err);
std::shared_ptr<OpenFile> find_descriptor(State &s, int fd);
int track_descriptor(State &s, int realfd, std::shared_ptr<OpenFile> file);

// ---- video_node.cpp: requests on a video node the core answers itself.
// Returns false when the request is not one of them. May release the lock
// (blocking dequeue). Fills *note.
bool handle_video_request(CoreLock &held, int node, const OpenFile &file, uint32_t request, void *arg,
                          int *error, LogNote *note);

// ---- buffers.cpp
void free_buffers(State &s, int node);
// A mapping or export of plane `id` begins (+1) or ends (-1); a buffer
// with any is reported V4L2_BUF_FLAG_MAPPED, as the kernel's buffer
// framework reports a buffer whose memory is in use.
void count_plane_user(State &s, uint64_t id, int change);
uint32_t mapped_flag(const Buffer &buffer);
uint32_t plane_offset(int buffer, int plane); // the mem_offset that names a plane
void *sim_mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset, bool *handled);
int sim_munmap(void *addr, size_t length, bool *handled);

// ---- streaming.cpp
void drain_filled(Node &n); // the node's descriptors stop being readable
// The hardware fills queued buffer index with a frame and signals it; a
// frame to paint is signalled once run_paint_jobs has painted it.
void fill_buffer(Node &n, int index, uint32_t sequence, uint64_t timestamp_ns, uint32_t reserved,
                 const uint32_t *plane_length, bool paint, bool error);
// Paints the frames that ended, with the lock released meanwhile, and hands
// them to the program. Whoever ends frames calls it before letting go of
// the lock: the frame clock, and a request or a test that pushed a frame.
void run_paint_jobs(CoreLock &held);
void release_queue(State &s, int node); // the last descriptor of the node closed

// ---- board_setup.cpp: the camera's set-up shared by the board's processes.
// Brings this process's copy up to date (call before reading it).
void adopt_board_setup(State &s, int camera);
// Hands this process's copy to the board (after changing it).
void publish_setup(State &s, int camera);

// ---- isp_pipeline.cpp: the ISP's processing of each view.
// View v as the camera delivers it: the configured view, or for view 1 the
// size its resize produces.
ViewFormat delivered_view(const Camera &cam, int view);
void set_view_resize(Camera &cam, const uint16_t words[11]);
void clear_view_resize(Camera &cam);
void set_camera_scene(Camera &cam, std::shared_ptr<const Scene> scene);
// Plans the painting of one plane of an ended frame: the processed image
// (built first when the frame cannot show an image already built), the
// sensor noise, then the frame number on top.
// may_lag: a free-running frame may show the previous image while the
// worker builds the next.
PlanePaint plan_plane_paint(State &s, int camera, int view, const Plane &plane, uint32_t sequence, bool may_lag);
// Paints it: no lock held.
void paint_planned(PlanePaint &paint);
// With the lock held again: an image built for it joins the camera's.
void keep_built_image(State &s, const PlanePaint &paint);
// ---- isp_metering.cpp: one frame of the automatic exposure and white
// balance, metering the scene the frame shows.
void meter_frame(Camera &cam, uint32_t sequence);
// After REQBUFS: builds the node's images and paints its buffers with the
// lock released, so that streams already running lose no frame to it.
void prepare_node_buffers(CoreLock &held, int node);

// ---- control_events.cpp: true when fd is a node descriptor whose open
// file has an event waiting (an exceptional condition for select/poll).
bool events_pending(int fd);

// ---- hardware_thread.cpp
int ensure_hardware_thread(State &s); // 0, or ENOMEM when the thread cannot start
// A node starts streaming: its first frame's end, as its pacing sets it.
void start_frame_clock(State &s, Node &n, uint32_t fps, uint64_t host_now);

// ---- trigger_line.cpp
// The first pulse of the line at or after host time `at`, as this board's
// sensors see it (its delay added).
uint64_t next_line_pulse(const TriggerLine &line, uint64_t at);
// How long after a frame a sensor is ready for the next pulse.
uint64_t ready_after_frame(uint64_t period_ns);

} // namespace zsim::detail

#endif
