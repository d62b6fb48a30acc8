/*
 * board_state.h - what every process of one simulated board shares.
 *
 * On a board, the drivers are one: a control set by the web console shows
 * in the frames an application streams, a second streamer gets EBUSY, and
 * the trigger mode is the platform's. The simulated board keeps exactly
 * that state in one shared-memory segment that all processes of a runner
 * map: the controls, the cameras' view formats, input, rate and resize, the
 * trigger mode and sensor-bus owners, which process owns each node's
 * buffer queue, and which cameras were unplugged. Buffers, streams and frames stay in the process that
 * streams; nothing of a frame crosses processes.
 *
 * The segment is a memory file. The first process of a board (the one the
 * runner starts, or any started without a board, or with a configuration
 * file other than the board's) creates it; each process
 * keeps a descriptor of it open across exec and names it in
 * ZELISP_SIM_BOARD ("PID/FD") for the programs it starts, which inherit it
 * or, when a program closed it, reopen it as /proc/PID/fd/FD. The kernel
 * frees it with the last process, however the processes end. Its lock is a
 * robust process-shared mutex: a process killed while holding it does not
 * wedge the board.
 *
 * Lock order: the core's lock, then the board's. Nothing taken under the
 * board's lock may reach the core (no allocation that could map a file).
 */
#ifndef ZELISP_SIM_BOARD_STATE_H
#define ZELISP_SIM_BOARD_STATE_H

#include <atomic>
#include <cstdint>

#include <pthread.h>

#include "control_table.h"
#include "sim_internal.h"

namespace zsim::detail {

constexpr int kBoardCameras = 12;
constexpr int kBoardNodes = 24;

// A process, told apart from a later one with the same number by the time
// the kernel started it.
struct ProcessRef {
    int32_t pid = 0;
    uint64_t start = 0;
    bool operator==(const ProcessRef &other) const { return pid == other.pid && start == other.start; }
};

struct SharedControls {
    int32_t values[kControlCount];
    uint8_t white_balance[kManualPayloadSize];
    uint8_t exposure[kManualPayloadSize];
    uint8_t abnormal[kAbnormalInfoSize];
};

// What a client can change of a camera's set-up: its views, rate, input
// (the view combination) and view 1's resize.
struct SharedSetup {
    ViewFormat views[3];
    uint32_t fps;
    uint32_t input;
    bool resize_active;
    uint16_t resize[11];
};

struct SharedCamera {
    SharedControls controls;
    std::atomic<uint32_t> control_version; // bumped by every control change
    SharedSetup setup;
    std::atomic<uint32_t> setup_version;   // bumped by every set-up change
    int32_t bus_owner;                     // IOC_SET_I2C_CTRL: -1 none yet, 0 ISP, 1 ARM
    std::atomic<bool> unplugged;           // the camera was disconnected
};

struct Board {
    uint64_t layout; // kBoardLayout once initialised
    // The configuration file that describes the board (its real path; empty
    // for the defaults): a process naming another one is on another board.
    char description[4096];
    pthread_mutex_t lock;
    std::atomic<int32_t> trigger_mode;
    std::atomic<int32_t> unplugged_cameras; // how many are disconnected
    SharedCamera cameras[kBoardCameras];
    ProcessRef queue_owner[kBoardNodes];
};

// The board of this process, attached (or created) on first use.
Board &board();
// True when this process found its board already made by another: its
// configuration then describes the board's start, which is past.
bool joined_board();
// The board's description changed: its maker found its configuration file
// in error and runs on the defaults (so do the programs it starts).
void describe_board_by_defaults();

// Holds the board's lock for a scope.
class BoardLock {
public:
    BoardLock();
    ~BoardLock();
    BoardLock(const BoardLock &) = delete;
    BoardLock &operator=(const BoardLock &) = delete;
};

ProcessRef this_process();

// Queue ownership across processes: EBUSY when another living process owns
// the node's queue (a dead owner's claim is dropped), else the claim is
// this process's; *claimed says whether it was new.
int claim_queue(int node, bool *claimed);
void release_queue_claim(int node);
// Another living process owns a queue of either of the camera's nodes.
bool camera_streamed_elsewhere(int camera);
bool queue_owned_elsewhere(int node);
// Gives up every claim of this process, as its exit does.
void release_process_claims();
// Drops every claim on the board (a test's reset).
void clear_queue_claims();

// While a process that joined a board loads its configuration, the
// configuration describes how the board started, which is past: it sets
// up the process but leaves the board's shared state as it is.
void set_adopting_board(bool adopting);
bool adopting_board();

// ---- controls.cpp: the driver's control values at load.
void set_control_defaults(SharedControls *camera);

} // namespace zsim::detail

#endif
