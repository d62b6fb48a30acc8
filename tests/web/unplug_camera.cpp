/*
 * unplug_camera.cpp - pulls a camera out of a running console's board, as
 * a USB camera is pulled out while streaming:
 *
 *     ZELISP_SIM_BOARD=PID/FD zelisp-web-unplug CAMERA
 *
 * PID/FD names the board's memory file in the console's process (the
 * tests find it in /proc/PID/fd). The camera is the board's, so the
 * console sees it gone at once.
 */
#include <cstdio>
#include <cstdlib>

#include "zelisp_sim/sim.h"

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: zelisp-web-unplug CAMERA\n");
        return 2;
    }
    zsim::disconnect_camera(std::atoi(argv[1]));
    return 0;
}
