/*
 * zelisp_sim_run.cpp - runs any program on the simulated ISP drivers:
 *
 *     zelisp-sim-run [--config FILE] [--config-errors=stop|warn] -- PROGRAM ARGS...
 *
 * It puts the simulator library in front of the program's C library with
 * LD_PRELOAD (ahead of any preload already set), names the configuration
 * file in ZELISP_SIM_CONFIG, and executes the program in its place. The
 * program and everything it starts are one board: they share the board's
 * state (the segment ZELISP_SIM_BOARD names, made by the program) and its
 * start instant (ZELISP_SIM_BOARD_START), from which its clocks drift; a
 * runner started inside another board starts a board of its own. An error
 * in the file stops the program before its main() with status 2 (the
 * simulator prints FILE:LINE: message); --config-errors=warn runs it on the
 * defaults instead.
 */
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <ctime>

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: zelisp-sim-run [--config FILE] [--config-errors=stop|warn] -- PROGRAM ARGS...\n");
    return 2;
}

// What --help prints; also the source of the manual page (help2man).
int help()
{
    std::printf("Usage: zelisp-sim-run [--config FILE] [--config-errors=stop|warn] -- PROGRAM ARGS...\n"
                "Run PROGRAM on the simulated ISP camera drivers: /dev/video0..23 and /dev/isp_misc are\n"
                "played in user space by libzelisp-sim.so, put in front of the program's C library.\n"
                "PROGRAM and every program it starts are one board: they share its cameras,\n"
                "controls and clocks.\n"
                "\n"
                "Options:\n"
                "  --config FILE               board set-up: cameras, view formats, frame rates, faults\n"
                "                              (INI; see simulator.md in the documentation)\n"
                "  --config-errors=stop|warn   on an error in FILE stop with status 2 (default), or warn\n"
                "                              and run on the defaults\n"
                "  --help                      show this text\n"
                "  --version                   show the version\n"
                "\n"
                "Exit status: the program's, 2 for a wrong command line or configuration, 127 when the\n"
                "program cannot be started.\n"
                "\n"
                "Example:\n"
                "  zelisp-sim-run -- zelisp-cam list\n");
    return 0;
}

// The library installed beside this program (bin/../lib), the one of the
// build tree while developing, or where it was meant to be installed.
std::string simulator_library()
{
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        self[length] = '\0';
        std::string beside = std::string(self, std::strrchr(self, '/') - self) + "/" ZELISP_SIM_RELATIVE_PATH;
        if (access(beside.c_str(), R_OK) == 0)
            return beside;
    }
    if (access(ZELISP_SIM_BUILD_PATH, R_OK) == 0)
        return ZELISP_SIM_BUILD_PATH;
    return ZELISP_SIM_INSTALL_PATH;
}

#ifdef __SANITIZE_ADDRESS__
extern "C" void __asan_init();

// A simulator built with AddressSanitizer needs the sanitizer's runtime
// loaded before every other library of the program. The program itself is
// not ours to check for leaks.
std::string sanitizer_runtime()
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&__asan_init), &info) || !info.dli_fname)
        return "";
    // Appended, so that it wins over a leak check the caller's options ask
    // for (the sanitized test suite asks for one in its own processes).
    const char *options = std::getenv("ASAN_OPTIONS");
    std::string merged = options && *options ? std::string(options) + ":detect_leaks=0" : "detect_leaks=0";
    setenv("ASAN_OPTIONS", merged.c_str(), 1);
    return std::string(info.dli_fname) + ":";
}
#else
std::string sanitizer_runtime() { return ""; }
#endif

bool set_preload(const std::string &library)
{
    std::string preload = sanitizer_runtime() + library;
    const char *existing = std::getenv("LD_PRELOAD");
    if (existing && *existing)
        preload += std::string(":") + existing;
    return setenv("LD_PRELOAD", preload.c_str(), 1) == 0;
}

// The program may change directory before the simulator reads the file,
// which it checks there.
bool set_config(const char *path)
{
    char absolute[PATH_MAX];
    const char *name = realpath(path, absolute) ? absolute : path;
    return setenv("ZELISP_SIM_CONFIG", name, 1) == 0;
}

// A new board starts now: the program makes its shared state (a board
// named in the environment would be the one this runner was started in),
// and its clocks count from the host's CLOCK_MONOTONIC now, in
// nanoseconds, read by the system call itself, which no board shifts.
bool start_board()
{
    timespec now;
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    const std::string start = std::to_string(int64_t(now.tv_sec) * 1000000000 + now.tv_nsec);
    return unsetenv("ZELISP_SIM_BOARD") == 0 && setenv("ZELISP_SIM_BOARD_START", start.c_str(), 1) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    const char *config = nullptr;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0)
        return help();
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("zelisp-sim-run %s\n", ZELISP_SIM_VERSION);
        return 0;
    }
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--config") == 0 && i + 1 < argc)
            config = argv[++i];
        else if (std::strncmp(argv[i], "--config=", 9) == 0)
            config = argv[i] + 9;
        else if (std::strcmp(argv[i], "--config-errors=warn") == 0 || std::strcmp(argv[i], "--config-errors=stop") == 0)
            setenv("ZELISP_SIM_CONFIG_ERRORS", argv[i] + 16, 1);
        else
            return usage();
    }
    if (i + 1 >= argc)
        return usage();
    char **program = argv + i + 1;

    if ((config && !set_config(config)) || !start_board())
        return 2;
    if (!set_preload(simulator_library())) {
        std::perror("zelisp-sim-run: LD_PRELOAD");
        return 2;
    }
    execvp(program[0], program);
    std::fprintf(stderr, "zelisp-sim-run: %s: %s\n", program[0], std::strerror(errno));
    return 127;
}
