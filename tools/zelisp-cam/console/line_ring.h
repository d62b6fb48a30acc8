/*
 * line_ring.h - a fixed ring of the library's lines between the threads
 * that make them (the capture thread, inside a library call) and the event
 * log's thread. Putting a line in never waits: each slot is claimed with a
 * compare-and-swap (a bounded queue in the manner of D. Vyukov's), and when
 * every slot is taken the line is counted as lost instead.
 */
#ifndef ZELISP_CAM_CONSOLE_LINE_RING_H
#define ZELISP_CAM_CONSOLE_LINE_RING_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zcam {

struct LibraryLine {
    int32_t kind = 0;
    int32_t error_number = 0;
    char text[192] = "";
    char label[48] = "";
    char node[32] = "";
};

class LineRing {
public:
    static constexpr size_t kSlots = 256; // a power of two

    LineRing();
    // Any thread: false (and the line counted as lost) when the ring is full.
    bool put(const LibraryLine &line);
    // The one reading thread: false when the ring is empty.
    bool get(LibraryLine *line);
    // Lines lost since the last call.
    uint64_t take_lost() { return lost_.exchange(0); }

private:
    struct Slot {
        std::atomic<size_t> turn;
        LibraryLine line;
    };
    std::array<Slot, kSlots> slots_;
    std::atomic<size_t> put_at_{0};
    std::atomic<size_t> get_at_{0};
    std::atomic<uint64_t> lost_{0};
};

} // namespace zcam

#endif
