/*
 * board_state.cpp - the board's shared state: a memory file made by the
 * first process of a board, inherited as a descriptor by the programs it
 * starts (or, where a program closed it, reopened through the process that
 * handed it down), and freed by the kernel with the last of them.
 */
#include "board_state.h"

#include <cerrno>
#include <climits>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "real_libc.h"

namespace zsim::detail {
namespace {

constexpr char kBoardVariable[] = "ZELISP_SIM_BOARD";
constexpr char kSegmentName[] = "zelisp-sim-board";
constexpr char kSegmentPath[] = "/memfd:zelisp-sim-board";
constexpr int kBoardDescriptorFloor = 300;
// Changes whenever struct Board does, so that a process of another build
// never reads a board laid out differently.
constexpr uint64_t kBoardLayout = 0x5A53494D00010000ull ^ sizeof(Board);

struct Attachment {
    Board *board = nullptr;
    bool joined = false;
};

Attachment g_attachment;
pthread_once_t g_attach_once = PTHREAD_ONCE_INIT;
std::atomic<bool> g_adopting{false};

// The kernel's start time of a process (field 22 of its main thread's
// stat, in clock ticks since boot); 0 when the process does not exist or has
// ended (a zombie, field 3 Z or X, waiting for its parent, holds nothing).
// Read from /proc/PID/task/PID/stat rather than /proc/PID/stat: an Arm64
// program run under qemu-user on a PC gets a made-up /proc/PID/stat for its
// own PID, with another start time than its parent reads for it.
uint64_t process_start(pid_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", int(pid), int(pid));
    const int fd = real::openat(AT_FDCWD, path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    char text[1024];
    const ssize_t length = real::read(fd, text, sizeof text - 1);
    real::close(fd);
    if (length <= 0)
        return 0;
    text[length] = '\0';
    // The command name may hold spaces and parentheses: fields count from
    // the last ')'.
    const char *field = std::strrchr(text, ')');
    if (!field || field[1] != ' ' || field[2] == 'Z' || field[2] == 'X')
        return 0;
    for (int skip = 0; field && skip < 20; ++skip)
        field = std::strchr(field + 1, ' ');
    return field ? std::strtoull(field + 1, nullptr, 10) : 0;
}

bool alive(const ProcessRef &process)
{
    return process.pid > 0 && process_start(process.pid) == process.start;
}

void init_lock(pthread_mutex_t *lock)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(lock, &attr);
    pthread_mutexattr_destroy(&attr);
}

void init_board(Board *board)
{
    new (board) Board();
    init_lock(&board->lock);
    board->trigger_mode.store(int32_t(TriggerMode::None));
    for (SharedCamera &camera : board->cameras) {
        set_control_defaults(&camera.controls);
        camera.bus_owner = -1;
    }
}

// The segment's descriptor goes high, out of the way of the numbers
// programs expect to get, and stays open across exec so that the programs
// this one starts inherit the board.
int keep_descriptor(int fd)
{
    const int high = real::fcntl(fd, F_DUPFD, kBoardDescriptorFloor);
    if (high < 0)
        return fd;
    real::close(fd);
    return high;
}

Board *map_board(int fd)
{
    void *mapped = real::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return mapped == MAP_FAILED ? nullptr : static_cast<Board *>(mapped);
}

// What describes the board this process means: the real path of its
// configuration file, or nothing for the defaults.
void own_description(char (&description)[sizeof(Board::description)])
{
    description[0] = '\0';
    const char *path = std::getenv("ZELISP_SIM_CONFIG");
    char real[PATH_MAX];
    if (path && *path)
        std::snprintf(description, sizeof description, "%s", realpath(path, real) ? real : path);
}

// The board an inherited descriptor (or, when the program closed it, the
// same descriptor of the process that handed the board down) leads to, if
// it is described by the same configuration file as this process.
Board *join(int fd, pid_t holder, int *kept)
{
    char path[64], target[64] = {};
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(path, target, sizeof target - 1);
    int opened = -1;
    if (length <= 0 || std::strncmp(target, kSegmentPath, sizeof kSegmentPath - 1) != 0) {
        std::snprintf(path, sizeof path, "/proc/%d/fd/%d", int(holder), fd);
        opened = real::openat(AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
        if (opened < 0)
            return nullptr;
        fd = opened;
    }
    struct stat st;
    Board *board = fstat(fd, &st) == 0 && size_t(st.st_size) == sizeof(Board) ? map_board(fd) : nullptr;
    char description[sizeof(Board::description)];
    own_description(description);
    if (board && (__atomic_load_n(&board->layout, __ATOMIC_ACQUIRE) != kBoardLayout ||
                  std::strncmp(board->description, description, sizeof description) != 0)) {
        real::munmap(board, sizeof(Board));
        board = nullptr;
    }
    if (opened >= 0 && !board)
        real::close(opened);
    *kept = !board ? -1 : opened >= 0 ? keep_descriptor(opened) : fd;
    return board;
}

// A new board in a memory file of its own: the kernel frees it when the
// last of its processes is gone, however they end.
Board *create(int *kept)
{
    const int fd = memfd_create(kSegmentName, MFD_CLOEXEC);
    if (fd < 0)
        return nullptr;
    Board *board = ftruncate(fd, off_t(sizeof(Board))) == 0 ? map_board(fd) : nullptr;
    if (!board) {
        real::close(fd);
        return nullptr;
    }
    init_board(board);
    own_description(board->description);
    __atomic_store_n(&board->layout, kBoardLayout, __ATOMIC_RELEASE);
    *kept = keep_descriptor(fd);
    return board;
}

// Without a memory file the board is this process's and the children it
// forks.
Board *make_private()
{
    void *mapped = real::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        std::abort(); // a few kilobytes: the process could not run anyway
    Board *board = static_cast<Board *>(mapped);
    init_board(board);
    board->layout = kBoardLayout;
    return board;
}

// "PID/FD": the descriptor, and a process that holds it open.
bool parse_board_variable(const char *text, pid_t *holder, int *fd)
{
    int pid = 0, number = -1;
    char end = 0;
    if (!text || std::sscanf(text, "%d/%d%c", &pid, &number, &end) != 2 || pid <= 0 || number < 0)
        return false;
    *holder = pid_t(pid);
    *fd = number;
    return true;
}

void attach()
{
    Attachment attachment;
    pid_t holder;
    int fd = -1, kept = -1;
    if (parse_board_variable(std::getenv(kBoardVariable), &holder, &fd))
        attachment.board = join(fd, holder, &kept);
    attachment.joined = attachment.board != nullptr;
    if (!attachment.board)
        attachment.board = create(&kept);
    if (!attachment.board)
        attachment.board = make_private();
    // The programs this one starts find the board through it.
    if (kept >= 0) {
        char text[32];
        std::snprintf(text, sizeof text, "%d/%d", int(getpid()), kept);
        setenv(kBoardVariable, text, 1);
    }
    g_attachment = attachment;
}

// The owner of a claim, if it still lives; a dead one's claim is dropped.
bool held_by_other(ProcessRef *owner)
{
    if (owner->pid == 0 || *owner == this_process())
        return false;
    if (alive(*owner))
        return true;
    *owner = ProcessRef{};
    return false;
}

} // namespace

Board &board()
{
    pthread_once(&g_attach_once, attach);
    return *g_attachment.board;
}

bool joined_board()
{
    board();
    return g_attachment.joined;
}

void describe_board_by_defaults()
{
    BoardLock hold;
    board().description[0] = '\0';
}

BoardLock::BoardLock()
{
    // A process that died holding the lock left the board as it was: each
    // change under the lock is a few plain stores, so the state is whole.
    if (pthread_mutex_lock(&board().lock) == EOWNERDEAD)
        pthread_mutex_consistent(&board().lock);
}

BoardLock::~BoardLock() { pthread_mutex_unlock(&board().lock); }

ProcessRef this_process()
{
    // Recomputed in a forked child, whose number differs.
    __attribute__((tls_model("initial-exec"))) static thread_local ProcessRef cached;
    const pid_t pid = getpid();
    if (cached.pid != pid)
        cached = ProcessRef{int32_t(pid), process_start(pid)};
    return cached;
}

int claim_queue(int node, bool *claimed)
{
    *claimed = false;
    BoardLock hold;
    ProcessRef &owner = board().queue_owner[node];
    if (held_by_other(&owner))
        return EBUSY;
    if (!(owner == this_process())) {
        owner = this_process();
        *claimed = true;
    }
    return 0;
}

void release_queue_claim(int node)
{
    BoardLock hold;
    ProcessRef &owner = board().queue_owner[node];
    if (owner == this_process())
        owner = ProcessRef{};
}

bool queue_owned_elsewhere(int node)
{
    BoardLock hold;
    return held_by_other(&board().queue_owner[node]);
}

bool camera_streamed_elsewhere(int camera)
{
    BoardLock hold;
    return held_by_other(&board().queue_owner[camera]) ||
           held_by_other(&board().queue_owner[camera + kBoardCameras]);
}

void clear_queue_claims()
{
    BoardLock hold;
    for (ProcessRef &owner : board().queue_owner)
        owner = ProcessRef{};
}

void release_process_claims()
{
    BoardLock hold;
    for (ProcessRef &owner : board().queue_owner)
        if (owner == this_process())
            owner = ProcessRef{};
}

void set_adopting_board(bool adopting) { g_adopting.store(adopting); }

bool adopting_board() { return g_adopting.load(std::memory_order_relaxed); }

} // namespace zsim::detail
