/*
 * frame_path_bench.cpp - what the library adds to each frame: time against
 * a hand-written V4L2 loop on the same simulated node, heap allocations, and
 * whether the library touches image memory at all.
 *
 * Every measured frame is scripted beforehand, so the simulator's hardware
 * thread is idle and the measured loop runs only the frame requests.
 */
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <ctime>
#include <cstdint>
#include <memory>
#include <string>

#include "alloc_counter.h"
#include "frame_path.h"

namespace {

using zelisp_bench::FramePath;

// Frames scripted ahead of each measured batch.
constexpr int kBatch = 256;

// One streaming camera serves every benchmark of the program.
FramePath &Path()
{
    static std::unique_ptr<FramePath> path = std::make_unique<FramePath>();
    return *path;
}

using Reader = bool (FramePath::*)(int);

// The CPU time of the reading thread is the measure: this machine is shared,
// and wall time would count the moments another process held the core.
double ThreadCpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

double WallSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

struct BatchTime {
    double cpu = 0;
    double wall = 0;
};

// One batch of scripted frames through `reader`.
BatchTime TimeBatch(FramePath &path, Reader reader, benchmark::State &state)
{
    path.Script(kBatch);
    double wall = WallSeconds();
    double cpu = ThreadCpuSeconds();
    bool ok = (path.*reader)(kBatch);
    BatchTime time{ThreadCpuSeconds() - cpu, WallSeconds() - wall};
    if (!ok)
        state.SkipWithError("a frame request failed");
    return time;
}

void MeasureReader(benchmark::State &state, Reader reader)
{
    FramePath &path = Path();
    double wall = 0;
    for (auto _ : state) {
        BatchTime time = TimeBatch(path, reader, state);
        wall += time.wall;
        state.SetIterationTime(time.cpu);
    }
    double frames = double(state.iterations()) * kBatch;
    state.SetItemsProcessed(int64_t(frames));
    state.counters["wall_ns_per_frame"] = wall * 1e9 / frames;
}

void BM_Library(benchmark::State &state) { MeasureReader(state, &FramePath::LibraryFrames); }
BENCHMARK(BM_Library)->UseManualTime();

void BM_PollLoop(benchmark::State &state) { MeasureReader(state, &FramePath::PollLoopFrames); }
BENCHMARK(BM_PollLoop)->UseManualTime();

void BM_SelectLoop(benchmark::State &state) { MeasureReader(state, &FramePath::SelectLoopFrames); }
BENCHMARK(BM_SelectLoop)->UseManualTime();

// The three readers in the same iteration, the one going first rotating, so
// that a change of load on the machine hits all alike.
void BM_SideBySide(benchmark::State &state)
{
    static const Reader readers[] = {&FramePath::LibraryFrames, &FramePath::PollLoopFrames,
                                     &FramePath::SelectLoopFrames};
    static const char *const names[] = {"library", "poll_loop", "select_loop"};
    FramePath &path = Path();
    BatchTime totals[3];
    int first = 0;
    for (auto _ : state) {
        double cpu = 0;
        for (int k = 0; k < 3; ++k) {
            int reader = (first + k) % 3;
            BatchTime time = TimeBatch(path, readers[reader], state);
            totals[reader].cpu += time.cpu;
            totals[reader].wall += time.wall;
            cpu += time.cpu;
        }
        first = (first + 1) % 3;
        state.SetIterationTime(cpu);
    }
    double frames = double(state.iterations()) * kBatch;
    for (int reader = 0; reader < 3; ++reader) {
        state.counters[std::string(names[reader]) + "_ns"] = totals[reader].cpu * 1e9 / frames;
        state.counters[std::string(names[reader]) + "_wall_ns"] = totals[reader].wall * 1e9 / frames;
    }
    state.counters["ratio_poll"] = totals[0].cpu / totals[1].cpu;
    state.counters["ratio_select"] = totals[0].cpu / totals[2].cpu;
    state.counters["wall_ratio_poll"] = totals[0].wall / totals[1].wall;
}
BENCHMARK(BM_SideBySide)->UseManualTime();

// Heap allocations on the reading thread per frame, three ways:
// - allocations the library's own code asks for (malloc family or
//   operator new called from inside libzelisp.so);
// - as a check that such attribution sees anything at all, the same count
//   for the simulator's code while the poll loop runs;
// - every allocation on the thread, for the library and for the poll loop.
//   The simulator allocates for its request log on this thread, about the
//   same for both readers since they send the same requests; its count
//   moves slightly with the length of the numbers it logs.
void BM_Allocations(benchmark::State &state)
{
    FramePath &path = Path();
    constexpr int kFrames = 4 * kBatch;
    if (!zelisp_bench::AttributeAllocationsTo("libzelisp-sim.so")) {
        state.SkipWithError("libzelisp-sim.so is not loaded");
        return;
    }
    path.Script(kBatch);
    zelisp_bench::StartCountingAllocations();
    bool ok = path.PollLoopFrames(kBatch);
    zelisp_bench::AllocationCount simulator = zelisp_bench::StopCountingAllocations();
    if (!zelisp_bench::AttributeAllocationsTo("libzelisp.so")) {
        state.SkipWithError("libzelisp.so is not loaded");
        return;
    }
    uint64_t library_own = 0, library_all = 0, poll_all = 0;
    for (auto _ : state) {
        for (int done = 0; done < kFrames; done += kBatch) {
            path.Script(kBatch);
            zelisp_bench::StartCountingAllocations();
            ok = path.LibraryFrames(kBatch) && ok;
            zelisp_bench::AllocationCount library = zelisp_bench::StopCountingAllocations();
            library_own += library.from_object;
            library_all += library.all;
            path.Script(kBatch);
            zelisp_bench::StartCountingAllocations();
            ok = path.PollLoopFrames(kBatch) && ok;
            poll_all += zelisp_bench::StopCountingAllocations().all;
        }
    }
    if (!ok)
        state.SkipWithError("a frame request failed");
    double frames = double(state.iterations()) * kFrames;
    state.counters["library_own_allocs_per_frame"] = double(library_own) / frames;
    state.counters["simulator_own_allocs_per_frame"] = double(simulator.from_object) / kBatch;
    state.counters["library_loop_allocs_per_frame"] = double(library_all) / frames;
    state.counters["poll_loop_allocs_per_frame"] = double(poll_all) / frames;
    state.counters["frames"] = frames;
}
BENCHMARK(BM_Allocations)->Iterations(4);

// ---- image memory: the plane pages are made inaccessible while frames go
// through the library; any read or write of image data by the library would
// fault, and the handler counts the page and opens it again.

struct Region {
    uintptr_t start;
    size_t length;
};
Region regions[FramePath::kBuffers * 3];
int region_count = 0;
volatile sig_atomic_t pages_touched = 0;

void OnFault(int, siginfo_t *info, void *)
{
    uintptr_t address = reinterpret_cast<uintptr_t>(info->si_addr);
    uintptr_t page = address & ~uintptr_t(getpagesize() - 1);
    for (int i = 0; i < region_count; ++i) {
        if (address >= regions[i].start && address < regions[i].start + regions[i].length) {
            mprotect(reinterpret_cast<void *>(page), getpagesize(), PROT_READ | PROT_WRITE);
            pages_touched = pages_touched + 1;
            return;
        }
    }
    // Not an image page: a real crash. Let it happen as it would have.
    signal(SIGSEGV, SIG_DFL);
}

bool AddRegion(void *addr, size_t length)
{
    uintptr_t page = uintptr_t(getpagesize());
    uintptr_t start = reinterpret_cast<uintptr_t>(addr);
    if (addr == nullptr || addr == MAP_FAILED || length == 0 || start % page != 0)
        return false;
    for (int i = 0; i < region_count; ++i)
        if (regions[i].start == start)
            return true;
    if (region_count == int(sizeof(regions) / sizeof(regions[0])))
        return false;
    regions[region_count++] = Region{start, (length + page - 1) & ~(page - 1)};
    return true;
}

void ProtectRegions(int protection)
{
    for (int i = 0; i < region_count; ++i)
        mprotect(reinterpret_cast<void *>(regions[i].start), regions[i].length, protection);
}

void BM_ImageMemoryTouched(benchmark::State &state)
{
    FramePath &path = Path();
    // One frame per buffer, to learn every plane mapping from the records.
    region_count = 0;
    for (int i = 0; i < 2 * FramePath::kBuffers; ++i) {
        path.Script(1);
        if (!path.LibraryFrames(1)) {
            state.SkipWithError("a frame request failed");
            return;
        }
        for (const auto &view : path.last_frame().views) {
            if (!AddRegion(view.addr, view.length)) {
                state.SkipWithError("a plane mapping is not page-aligned");
                return;
            }
        }
    }
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO;
    struct sigaction previous {};
    sigaction(SIGSEGV, &action, &previous);

    // The guard itself is checked first: a read of one guarded byte must be
    // seen as one touched page.
    ProtectRegions(PROT_NONE);
    pages_touched = 0;
    volatile uint8_t probe = *reinterpret_cast<volatile uint8_t *>(regions[0].start);
    (void)probe;
    ProtectRegions(PROT_READ | PROT_WRITE);
    const sig_atomic_t guard_seen = pages_touched;

    uint64_t frames = 0;
    size_t bytes = 0;
    for (int i = 0; i < region_count; ++i)
        bytes += regions[i].length;
    pages_touched = 0;
    for (auto _ : state) {
        path.Script(kBatch);
        ProtectRegions(PROT_NONE);
        bool ok = path.LibraryFrames(kBatch);
        ProtectRegions(PROT_READ | PROT_WRITE);
        frames += kBatch;
        if (!ok)
            state.SkipWithError("a frame request failed");
    }
    sigaction(SIGSEGV, &previous, nullptr);
    state.counters["frames"] = double(frames);
    state.counters["image_bytes_guarded"] = double(bytes);
    state.counters["image_pages_touched"] = pages_touched;
    state.counters["guard_check_pages"] = guard_seen;
}
BENCHMARK(BM_ImageMemoryTouched)->Iterations(16);

} // namespace

BENCHMARK_MAIN();
