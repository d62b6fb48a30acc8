/*
 * controls.h - the picture controls as one table: the Python property, the
 * driver's V4L2 control behind it, and the library's calls.
 *
 * Values are read from and written to the driver on every access (nothing
 * is cached), and the ranges come from the driver too (VIDIOC_QUERYCTRL on
 * the camera's node), so a program can clamp or reset a control without
 * knowing the board.
 */
#ifndef ZELISP_PYTHON_CONTROLS_H
#define ZELISP_PYTHON_CONTROLS_H

#include <array>
#include <cstdint>
#include <optional>
#include <utility>

namespace zelpy {

/* A control set and read as one number: a 32-bit word or an 8-bit switch. */
struct NumberControl {
    const char *name;
    uint32_t id; /* the driver's V4L2 control */
    int (*get_word)(unsigned long, uint32_t *);
    int (*set_word)(unsigned long, uint32_t);
    int (*get_byte)(unsigned long, uint8_t *);
    int (*set_byte)(unsigned long, uint8_t);
    const char *doc;
};
extern const std::array<NumberControl, 8> kNumberControls;

/* The denoise strengths, set and read as one (luma, chroma) pair. */
extern const uint32_t kLumaDenoiseId;
extern const uint32_t kChromaDenoiseId;

/* Through the library; handle 0 (a closed camera) raises BadState. */
int64_t read_control(unsigned long handle, const NumberControl &control);
void write_control(unsigned long handle, const NumberControl &control, int64_t value);
/* The largest value the control's library call takes. */
int64_t control_maximum(const NumberControl &control);

struct DriverRange {
    int64_t minimum;
    int64_t maximum;
    int64_t default_value;
};
/* What the driver says of control id on the node; none when it does not
 * know the control. The package's numbers are the driver's 32-bit values
 * read as unsigned, so a range reaching below 0 is every 32-bit word. */
std::optional<DriverRange> driver_range(int node, uint32_t id);
/* The values a write of control id may carry: the driver's range where the
 * driver tells one on the node (so that a refusal names the values the user
 * can give), else every value the library call takes (node -1: closed). */
std::pair<int64_t, int64_t> writable_range(int node, uint32_t id, int64_t call_maximum);

} // namespace zelpy

#endif
