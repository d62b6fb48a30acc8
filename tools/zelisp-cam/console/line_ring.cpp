// line_ring.cpp - the bounded ring of library lines.
#include "line_ring.h"

namespace zcam {

LineRing::LineRing()
{
    for (size_t i = 0; i < kSlots; ++i)
        slots_[i].turn.store(i, std::memory_order_relaxed);
}

bool LineRing::put(const LibraryLine &line)
{
    size_t at = put_at_.load(std::memory_order_relaxed);
    for (;;) {
        Slot &slot = slots_[at % kSlots];
        size_t turn = slot.turn.load(std::memory_order_acquire);
        auto ahead = static_cast<std::ptrdiff_t>(turn - at);
        if (ahead == 0) {
            if (put_at_.compare_exchange_weak(at, at + 1, std::memory_order_relaxed)) {
                slot.line = line;
                slot.turn.store(at + 1, std::memory_order_release);
                return true;
            }
        } else if (ahead < 0) {
            lost_.fetch_add(1, std::memory_order_relaxed); // full: the reader is a whole ring behind
            return false;
        } else {
            at = put_at_.load(std::memory_order_relaxed);
        }
    }
}

bool LineRing::get(LibraryLine *line)
{
    size_t at = get_at_.load(std::memory_order_relaxed);
    Slot &slot = slots_[at % kSlots];
    if (slot.turn.load(std::memory_order_acquire) != at + 1)
        return false; // empty, or its writer has not finished
    *line = slot.line;
    get_at_.store(at + 1, std::memory_order_relaxed);
    slot.turn.store(at + kSlots, std::memory_order_release);
    return true;
}

} // namespace zcam
