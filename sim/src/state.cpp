/*
 * state.cpp - the simulator's one state and its lock, start-up from the
 * configuration file named in the environment, the defaults a test starts
 * from, and the questions a test asks about the process (is the simulator
 * in front of libc, what does the program still hold).
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include "board_clock.h"
#include "board_state.h"
#include "core.h"

namespace zsim::detail {
namespace {

__attribute__((tls_model("initial-exec"))) thread_local int lock_depth = 0;

} // namespace

void apply_defaults(State &s)
{
    for (int c = 0; c < kCameras; ++c) {
        s.cameras[c] = Camera();
        s.cameras[c].present = c < 4;
    }
    reset_nodes(s);
    s.log.clear();
    s.log_limit = kTestLogLimit;
    s.faults.clear();
    s.line = TriggerLine{};
}

State &state()
{
    static State *const instance = [] {
        State *s = new State();
        apply_defaults(*s);
        // Outside tests nothing reads the log, so it records nothing unless
        // ZELISP_SIM_LOG names a number of entries to keep.
        const char *keep = std::getenv("ZELISP_SIM_LOG");
        s->log_limit = keep ? size_t(std::strtoul(keep, nullptr, 10)) : 0;
        // A child forked while another thread held the lock would find it
        // held forever. (The board's lock is shared with other processes:
        // whoever holds it releases it in the child too.)
        pthread_atfork([] { state().lock.lock(); }, [] { state().lock.unlock(); },
                       [] { state().lock.unlock(); });
        return s;
    }();
    return *instance;
}

bool inside_core() { return lock_depth > 0; }

CoreLock::CoreLock() : guard_(state().lock) { ++lock_depth; }

CoreLock::~CoreLock()
{
    if (guard_.owns_lock())
        --lock_depth;
}

void CoreLock::unlock()
{
    guard_.unlock();
    --lock_depth;
}

void CoreLock::lock()
{
    guard_.lock();
    ++lock_depth;
}

bool camera_present(int camera)
{
    if (camera < 0 || camera >= kCameras)
        return false;
    CoreLock held;
    return state().cameras[camera].present;
}

namespace {

void publish_all_setups()
{
    CoreLock held;
    for (int camera = 0; camera < kCameras; ++camera)
        publish_setup(state(), camera);
}

// A program run through LD_PRELOAD is configured by the file named in
// ZELISP_SIM_CONFIG before its main() starts. A board described wrongly
// would run a test against the wrong board, so an error stops the program
// before main() with status 2, unless ZELISP_SIM_CONFIG_ERRORS=warn asks
// to run on the defaults instead. The error already names the file.
__attribute__((constructor)) void load_environment_config()
{
    establish_board_start();
    // A process joining a running board takes the board as it finds it;
    // the first one describes it.
    const bool joined = joined_board();
    // The same process under a program it executed: what the former
    // program held went with it.
    if (joined)
        release_process_claims();
    set_adopting_board(joined);
    const char *path = std::getenv("ZELISP_SIM_CONFIG");
    std::string error;
    const bool loaded = !path || !*path || load_config(path, &error);
    set_adopting_board(false);
    if (!joined)
        publish_all_setups();
    if (loaded)
        return;
    std::fprintf(stderr, "%s\n", error.c_str());
    const char *policy = std::getenv("ZELISP_SIM_CONFIG_ERRORS");
    if (!policy || std::strcmp(policy, "warn") != 0)
        _exit(2);
    // The program's own children run on the defaults too, without the
    // same warning again, on its board.
    unsetenv("ZELISP_SIM_CONFIG");
    if (!joined)
        describe_board_by_defaults();
}

// The hardware thread must not outlive the library it runs in, and what
// the process held on the board is given back.
__attribute__((destructor)) void stop_hardware_thread()
{
    release_process_claims();
    State &s = state();
    std::thread hardware;
    {
        CoreLock held;
        s.stopping = true;
        hardware.swap(s.hardware);
    }
    s.wake.notify_all();
    if (!hardware.joinable())
        return;
    if (s.hardware_pid == getpid())
        hardware.join();
    else
        new std::thread(std::move(hardware)); // a forked child has no such thread

}

} // namespace
} // namespace zsim::detail

namespace zsim {

using namespace detail;

bool active()
{
    // Ask the ioctl the process resolves (which may be a sanitizer's, in
    // front of ours) whether it reaches the simulator.
    using IoctlFn = int (*)(int, unsigned long, ...);
    auto process_ioctl = reinterpret_cast<IoctlFn>(dlsym(RTLD_DEFAULT, "ioctl"));
    uint32_t answer = 0;
    return process_ioctl && process_ioctl(-1, kProbeRequest, &answer) == 0 && answer == kProbeAnswer;
}

void reset()
{
    clear_queue_claims();
    reconnect_cameras();
    {
        CoreLock held;
        apply_defaults(state());
    }
    publish_all_setups();
    reset_controls();
    reset_misc();
    set_board_clock(BoardClock{});
}

size_t live_descriptors()
{
    CoreLock held;
    return state().descriptors.size();
}

size_t live_mappings()
{
    CoreLock held;
    return state().mappings.size();
}

} // namespace zsim
