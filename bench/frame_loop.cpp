/*
 * frame_loop.cpp - a fixed number of scripted frames through one reader and
 * nothing else, for counting instructions under callgrind:
 *
 *   valgrind --tool=callgrind --toggle-collect=isp_get_frame_buf \
 *            --toggle-collect=isp_put_frame_buf zelisp_bench_frame_loop library 20000
 *   valgrind --tool=callgrind --toggle-collect='*HandWrittenFrame*' \
 *            zelisp_bench_frame_loop poll-loop 20000      (or select-loop)
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame_path.h"

int main(int argc, char **argv)
{
    using Reader = bool (zelisp_bench::FramePath::*)(int);
    Reader reader = nullptr;
    if (argc == 3 && strcmp(argv[1], "library") == 0)
        reader = &zelisp_bench::FramePath::LibraryFrames;
    else if (argc == 3 && strcmp(argv[1], "poll-loop") == 0)
        reader = &zelisp_bench::FramePath::PollLoopFrames;
    else if (argc == 3 && strcmp(argv[1], "select-loop") == 0)
        reader = &zelisp_bench::FramePath::SelectLoopFrames;
    if (!reader) {
        fprintf(stderr, "usage: %s library|poll-loop|select-loop FRAMES\n", argv[0]);
        return 2;
    }
    const int frames = atoi(argv[2]);
    constexpr int kBatch = 256;
    zelisp_bench::FramePath path;
    for (int done = 0; done < frames; done += kBatch) {
        int batch = frames - done < kBatch ? frames - done : kBatch;
        path.Script(batch);
        if (!(path.*reader)(batch))
            zelisp_bench::Fail("frame", 0);
    }
    printf("frames %d\n", frames);
    return 0;
}
