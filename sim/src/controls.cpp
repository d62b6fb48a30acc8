// Placeholder until the camera controls land: every control request is unknown.
#include "sim_internal.h"

namespace zsim {
bool control_value(int, uint32_t, int32_t *) { return false; }
bool set_control_value(int, uint32_t, int32_t) { return false; }
std::vector<uint8_t> manual_payload(int, uint32_t) { return std::vector<uint8_t>(36, 0); }
void set_abnormal_info(int, const uint8_t *) {}
} // namespace zsim

namespace zsim::detail {
bool handle_control_request(int, uint32_t, void *, int *, LogNote *) { return false; }
void reset_controls() {}
} // namespace zsim::detail
