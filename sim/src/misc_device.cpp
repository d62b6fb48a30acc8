// Placeholder until the platform node lands: it knows no request.
#include "sim_internal.h"

namespace zsim {
void set_valid_camera_count(int) {}
std::vector<uint8_t> camera_info_record(int) { return std::vector<uint8_t>(40, 0); }
TriggerMode trigger_mode() { return TriggerMode::None; }
} // namespace zsim

namespace zsim::detail {
bool handle_misc_request(uint32_t, void *, int *, LogNote *) { return false; }
void reset_misc() {}
} // namespace zsim::detail
