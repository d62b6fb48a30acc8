/*
 * board_setup.cpp - a camera's set-up as the board's processes share it:
 * its view formats, rate, input (the view combination) and view 1's resize.
 * Each process works on its own copy, brought up to date before a request
 * reads it (one atomic load when nothing changed) and handed to the board
 * after a request or a test changes it.
 */
#include <cstring>

#include "board_state.h"
#include "core.h"

namespace zsim::detail {
namespace {

SharedSetup setup_of(const Camera &cam)
{
    SharedSetup setup{};
    std::memcpy(setup.views, cam.config.views, sizeof setup.views);
    setup.fps = cam.config.fps;
    setup.input = cam.input;
    setup.resize_active = cam.isp.resize.active;
    std::memcpy(setup.resize, cam.isp.resize.words, sizeof setup.resize);
    return setup;
}

void take_setup(Camera &cam, const SharedSetup &setup)
{
    std::memcpy(cam.config.views, setup.views, sizeof setup.views);
    cam.config.fps = setup.fps;
    cam.input = setup.input;
    if (setup.resize_active)
        set_view_resize(cam, setup.resize);
    else
        clear_view_resize(cam);
    cam.resize_mine = false;
}

} // namespace

void adopt_board_setup(State &s, int camera)
{
    SharedCamera &shared = board().cameras[camera];
    Camera &cam = s.cameras[camera];
    if (shared.setup_version.load(std::memory_order_acquire) == cam.setup_seen)
        return;
    SharedSetup setup;
    {
        BoardLock hold;
        setup = shared.setup;
        cam.setup_seen = shared.setup_version.load(std::memory_order_relaxed);
    }
    // A board made by a process that never published a set-up keeps each
    // process's own (the defaults of the same configuration).
    if (setup.fps)
        take_setup(cam, setup);
}

void publish_setup(State &s, int camera)
{
    if (adopting_board())
        return;
    SharedCamera &shared = board().cameras[camera];
    const SharedSetup setup = setup_of(s.cameras[camera]);
    BoardLock hold;
    shared.setup = setup;
    s.cameras[camera].setup_seen = shared.setup_version.fetch_add(1, std::memory_order_release) + 1;
}

} // namespace zsim::detail
