/*
 * sim_load.cpp - the simulated driver's own cost: N cameras streaming at a
 * size and rate, every frame dequeued and queued again at once by a plain
 * V4L2 loop, counted from the first frame (no warm-up), so that the
 * simulator's start-up (buffer painting, image processing) is measured too.
 *
 *   zelisp_bench_sim_load CAMERAS WIDTH HEIGHT FPS SECONDS default|changed|changing|noisy
 *
 * "changed" sets every picture control away from its default after the
 * buffers are allocated, as an application does after set-up; "changing"
 * also changes the brightness of every camera once a second while
 * streaming; "noisy" keeps the defaults and gives every camera sensor noise
 * of standard deviation 4, which is painted over every frame. Prints one
 * JSON object, with the longest any single dequeue or queue request took.
 */
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "../tests/support/isp_payload.h"
#include "driver/isp_requests.h"
#include "zelisp_sim/sim.h"

namespace {

constexpr uint32_t kBuffers = 8; // the most the library requests: 7 frames of slack for a late reader

double now_s()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

double cpu_s()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool request(int fd, unsigned long what, void *arg)
{
    while (ioctl(fd, what, arg) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

// A frame request, timed: a request that waits on the driver shows here.
double longest_request = 0;

bool timed_request(int fd, unsigned long what, void *arg)
{
    const double start = now_s();
    const bool done = request(fd, what, arg);
    longest_request = std::max(longest_request, now_s() - start);
    return done;
}

void set_control(int fd, uint32_t id, int32_t value)
{
    v4l2_control control{id, value};
    if (!request(fd, VIDIOC_S_CTRL, &control))
        std::perror("VIDIOC_S_CTRL");
}

void set_payload(int fd, uint32_t id, const uint16_t *words, size_t count, size_t at, uint32_t flag)
{
    zelisp_test::IspPayload payload(id, flag, words, count, at);
    if (!request(fd, VIDIOC_S_EXT_CTRLS, payload.request()))
        std::perror("VIDIOC_S_EXT_CTRLS");
}

void change_every_control(int fd)
{
    set_control(fd, V4L2_CID_BRIGHTNESS, 150);
    set_control(fd, V4L2_CID_CONTRAST, 150);
    set_control(fd, V4L2_CID_SATURATION, 170);
    set_control(fd, V4L2_CID_HUE, 140);
    set_control(fd, V4L2_CID_GAMMA, 140);
    set_control(fd, V4L2_CID_SHARPNESS, 8);
    set_control(fd, V4L2_CID_AUTO_WHITE_BALANCE, 0);
    const uint16_t gains[9] = {300, 256, 220, 300, 256, 220, 300, 256, 220};
    set_payload(fd, zelisp::ISP_CID_MWB, gains, 9, 16, 1);
    set_control(fd, V4L2_CID_EXPOSURE_AUTO, 1); // manual
    const uint16_t exposure[6] = {12000, 300, 0, 0, 0, 0};
    set_payload(fd, zelisp::ISP_CID_MEC, exposure, 6, 4, 0);
    v4l2_ext_control denoise{};
    v4l2_ext_controls controls{};
    controls.ctrl_class = V4L2_CTRL_CLASS_USER;
    controls.count = 1;
    controls.controls = &denoise;
    for (uint32_t id : {zelisp::ISP_CID_YDNS, zelisp::ISP_CID_UVDNS}) {
        denoise.id = id;
        denoise.size = 4;
        denoise.value = 3;
        if (!request(fd, VIDIOC_S_EXT_CTRLS, &controls))
            std::perror("denoise");
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s CAMERAS WIDTH HEIGHT FPS SECONDS default|changed|changing\n", argv[0]);
        return 64;
    }
    const int cameras = std::atoi(argv[1]);
    const uint32_t width = uint32_t(std::atoi(argv[2])), height = uint32_t(std::atoi(argv[3]));
    const uint32_t fps = uint32_t(std::atoi(argv[4]));
    const double seconds = std::atof(argv[5]);
    const std::string controls = argv[6];
    const bool changed = controls == "changed" || controls == "changing";
    const bool changing = controls == "changing";
    const bool noisy = controls == "noisy";
    if (cameras < 1 || cameras > 12 || !zsim::active())
        return 64;

    std::vector<int> fds;
    for (int c = 0; c < cameras; ++c) {
        zsim::CameraConfig config;
        config.fps = fps;
        config.sensor_width = std::max(width, 1920u);
        config.sensor_height = std::max(height, 1080u);
        config.views[0] = {zsim::kNV12, width, height};
        config.noise = noisy ? 4 : 0;
        zsim::set_camera(c, config);
        const std::string path = "/dev/video" + std::to_string(c);
        int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
        v4l2_requestbuffers req{};
        req.count = kBuffers;
        req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        req.memory = V4L2_MEMORY_MMAP;
        if (fd < 0 || !request(fd, VIDIOC_REQBUFS, &req)) {
            std::perror(path.c_str());
            return 1;
        }
        if (changed)
            change_every_control(fd);
        for (uint32_t i = 0; i < req.count; ++i) {
            v4l2_plane planes[3]{};
            v4l2_buffer buf{};
            buf.index = i;
            buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
            buf.memory = V4L2_MEMORY_MMAP;
            buf.m.planes = planes;
            buf.length = 3;
            if (!request(fd, VIDIOC_QBUF, &buf))
                return 1;
        }
        fds.push_back(fd);
    }
    const double cpu_start = cpu_s();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    for (int fd : fds)
        request(fd, VIDIOC_STREAMON, &type);
    const double start = now_s();
    double next_change = start + 1;
    int brightness = 150;
    std::vector<pollfd> waits;
    for (int fd : fds)
        waits.push_back({fd, POLLIN, 0});
    uint64_t dropped_first_second = 0;
    bool first_second = true;
    // The reader's longest absence between two looks at the descriptors: a
    // camera drops only when it is longer than the queued buffers last
    // (seven frame periods here), so a drop with a short stall is the
    // driver's, one after a long stall the machine's.
    double longest_stall = 0, last_look = now_s();
    while (now_s() - start < seconds) {
        if (first_second && now_s() - start >= 1) {
            first_second = false;
            for (int c = 0; c < cameras; ++c)
                dropped_first_second += zsim::counters(c).dropped;
        }
        const int ready = poll(waits.data(), waits.size(), 100);
        const double looked = now_s();
        longest_stall = std::max(longest_stall, looked - last_look);
        last_look = looked;
        if (ready <= 0)
            continue;
        for (pollfd &wait : waits) {
            if (!(wait.revents & POLLIN))
                continue;
            v4l2_plane planes[3]{};
            v4l2_buffer buf{};
            buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
            buf.memory = V4L2_MEMORY_MMAP;
            buf.m.planes = planes;
            buf.length = 3;
            while (timed_request(wait.fd, VIDIOC_DQBUF, &buf))
                timed_request(wait.fd, VIDIOC_QBUF, &buf);
        }
        if (changing && now_s() >= next_change) {
            brightness = brightness == 150 ? 110 : 150;
            for (int fd : fds)
                set_control(fd, V4L2_CID_BRIGHTNESS, brightness);
            next_change += 1;
        }
    }
    // The counts end with the reading: every camera's counters are taken
    // before any stream stops, since a camera still streaming while the
    // others are switched off and closed has no reader and would count
    // drops the run never had.
    const double elapsed = now_s() - start, cpu = cpu_s() - cpu_start;
    uint64_t produced = 0, delivered = 0, dropped = 0;
    for (int c = 0; c < cameras; ++c) {
        const zsim::Counters counters = zsim::counters(c);
        produced += counters.produced;
        delivered += counters.delivered;
        dropped += counters.dropped;
    }
    for (int fd : fds) {
        request(fd, VIDIOC_STREAMOFF, &type);
        close(fd);
    }
    std::printf("{\"cameras\": %d, \"width\": %u, \"height\": %u, \"fps\": %u, \"controls\": \"%s\", "
                "\"seconds\": %.2f, \"produced\": %llu, \"delivered\": %llu, \"dropped\": %llu, "
                "\"dropped_first_second\": %llu, \"reader_stall_ms\": %.1f, \"longest_request_ms\": %.2f, "
                "\"cpu_percent\": %.1f}\n",
                cameras, width, height, fps, controls.c_str(), elapsed,
                (unsigned long long)produced, (unsigned long long)delivered, (unsigned long long)dropped,
                (unsigned long long)dropped_first_second, 1000.0 * longest_stall, 1000.0 * longest_request,
                100.0 * cpu / elapsed);
    return 0;
}
