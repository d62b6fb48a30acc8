/*
 * control_ranges.h - the console's view of each control: what each of its
 * values may be, in which unit, and the names of an enumerated control's
 * values. A value out of range is refused here, with the range, before
 * any request; the page draws its sliders, menus and fields from it.
 */
#ifndef ZELISP_CAM_CONSOLE_CONTROL_RANGES_H
#define ZELISP_CAM_CONSOLE_CONTROL_RANGES_H

#include <cstdint>
#include <string>
#include <vector>

namespace zcam {

struct FieldRange {
    const char *label;
    uint32_t min;
    uint32_t max;
};

struct MenuItem {
    uint32_t value;
    const char *label;
};

struct ControlRange {
    const char *name;
    const char *kind; // slider, switch, menu, number, readonly
    std::vector<FieldRange> fields;
    const char *unit; // what a value counts
    std::vector<MenuItem> menu;
    const char *help;
};

const std::vector<ControlRange> &control_ranges();
const ControlRange *find_range(const std::string &name);

} // namespace zcam

#endif
