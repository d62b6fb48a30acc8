/*
 * controls.h - every control of the library under a readable name, as one
 * table: how many values "set" takes, what they mean, and the library
 * functions that read and write it. info, get and set all work from it.
 */
#ifndef ZELISP_CAM_CONTROLS_H
#define ZELISP_CAM_CONTROLS_H

#include <cstdint>
#include <string>
#include <vector>

namespace zcam {

struct Control {
    const char *name;
    const char *values; // what "set" takes, for help and error texts
    int set_count;      // number of values "set" takes; 0: the control cannot be set
    uint32_t max;       // the largest value the library takes (checked before a camera is opened)
    bool low_16_bits;   // the library sends the low 16 bits of each value, without a word
    uint32_t id;        // the driver's control id, for its range; 0: none of its own
    // Reads the control and formats its value; null when it cannot be read.
    int (*read)(unsigned long handle, std::string *value);
    // Writes set_count values; null when the control cannot be set.
    int (*write)(unsigned long handle, const uint32_t *values);
};

const std::vector<Control> &controls();
const Control *find_control(const std::string &name);
std::vector<std::string> control_names();

// Parses one value: decimal, 0x hexadecimal, or on/off (1/0).
bool parse_control_value(const std::string &text, uint32_t *value);

} // namespace zcam

#endif
