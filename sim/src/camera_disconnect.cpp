/*
 * camera_disconnect.cpp - a camera unplugged while streaming, as a USB
 * camera is removed: the kernel unregisters its video devices, so the nodes
 * vanish from /dev, every request on a descriptor still open answers
 * ENODEV (close alone works), and poll reports POLLERR and POLLHUP. Here
 * the camera is the board's, so every process of the board sees it gone;
 * zsim::reset() plugs it back.
 */
#include <cstdio>

#include <unistd.h>

#include "board_state.h"
#include "core.h"

namespace zsim::detail {

bool camera_disconnected(int camera)
{
    return camera >= 0 && camera < kCameras && board().cameras[camera].unplugged.load(std::memory_order_relaxed);
}

bool node_disconnected(int node) { return camera_disconnected(camera_of_node(node)); }

bool any_camera_disconnected() { return board().unplugged_cameras.load(std::memory_order_relaxed) > 0; }

void stop_disconnected_stream(Node &n)
{
    if (!n.streaming)
        return;
    n.streaming = false;
    n.queued.clear();
    n.filled.clear();
    ++n.queue_generation;
    drain_filled(n);
    // A program waiting for the next frame wakes and finds the camera gone.
    uint64_t one = 1;
    if (n.event_fd >= 0 && write(n.event_fd, &one, sizeof one) != sizeof one)
        std::perror("zelisp-sim: disconnect signal");
}

void disconnect(State &s, int camera)
{
    if (camera < 0 || camera >= kCameras || board().cameras[camera].unplugged.exchange(true))
        return;
    board().unplugged_cameras.fetch_add(1);
    stop_disconnected_stream(s.nodes[camera]);
    stop_disconnected_stream(s.nodes[camera + kCameras]);
}

void reconnect_cameras()
{
    for (SharedCamera &camera : board().cameras)
        camera.unplugged.store(false);
    board().unplugged_cameras.store(0);
}

} // namespace zsim::detail

namespace zsim {

using namespace detail;

void disconnect_camera(int camera)
{
    CoreLock held;
    disconnect(state(), camera);
}

} // namespace zsim
