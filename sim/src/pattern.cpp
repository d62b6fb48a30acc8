// Placeholder until the test pattern lands: planes stay as they are.
#include "sim_internal.h"

namespace zsim::detail {
size_t image_size(const ViewFormat &format) { return size_t(format.width) * format.height * 2; }
void paint_background(uint8_t *, size_t, const ViewFormat &) {}
void paint_frame(uint8_t *, size_t, const ViewFormat &, uint32_t) {}
bool read_frame_number(const uint8_t *, size_t, const ViewFormat &, uint32_t *) { return false; }
} // namespace zsim::detail
