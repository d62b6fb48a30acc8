// control_ranges.cpp - the table of the controls' ranges, units and menus.
#include "control_ranges.h"

namespace zcam {

const std::vector<ControlRange> &control_ranges()
{
    static const std::vector<ControlRange> table = {
        {"brightness", "slider", {{"value", 0, 255}}, "level", {}, "picture brightness; 128 leaves it as the sensor gives it"},
        {"contrast", "slider", {{"value", 0, 255}}, "level", {}, "picture contrast"},
        {"saturation", "slider", {{"value", 0, 255}}, "level", {}, "colour saturation; 0 is grey"},
        {"hue", "slider", {{"value", 0, 255}}, "level", {}, "hue rotation"},
        {"sharpness", "slider", {{"value", 0, 10}}, "step", {}, "edge enhancement"},
        {"gamma", "number", {{"value", 0, UINT32_MAX}}, "", {}, "gamma word, passed to the ISP firmware as it is"},
        {"denoise", "slider", {{"luma", 0, 10}, {"chroma", 0, 10}}, "strength", {}, "denoise strength, luma and chroma"},
        {"awb", "menu", {{"value", 0, 1}}, "", {{0, "off"}, {1, "automatic"}}, "automatic white balance"},
        {"aec",
         "menu",
         {{"value", 0, 3}},
         "",
         {{0, "automatic"}, {1, "manual"}, {2, "shutter priority"}, {3, "aperture priority"}},
         "exposure mode (the driver reads back 0 for automatic, 1 for the others)"},
        {"mwb",
         "number",
         {{"gain 1", 0, 65535}, {"gain 2", 0, 65535}, {"gain 3", 0, 65535}},
         "driver gain code",
         {},
         "manual white-balance gains (the driver cannot read them back)"},
        {"mec",
         "number",
         {{"word 1", 0, 65535},
          {"word 2", 0, 65535},
          {"word 3", 0, 65535},
          {"word 4", 0, 65535},
          {"word 5", 0, 65535},
          {"word 6", 0, 65535}},
         "driver word",
         {},
         "manual exposure words (the driver cannot read them back)"},
        {"abnormal", "readonly", {}, "", {}, "the ISP's abnormal-information block, 14 bytes in hex"},
    };
    return table;
}

const ControlRange *find_range(const std::string &name)
{
    for (const ControlRange &range : control_ranges())
        if (name == range.name)
            return &range;
    return nullptr;
}

} // namespace zcam
