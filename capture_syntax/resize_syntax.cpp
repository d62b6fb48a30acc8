// resize_syntax.cpp - reading a crop/scale/crop record.
#include "resize_syntax.h"

#include "numbers.h"

namespace capture_syntax {

bool parse_resize(const std::string &text, const std::string &option, zelvideo::_resize_param_t *param,
                  std::string *error)
{
    std::vector<std::string> steps = split(text, ":");
    uint16_t before[4], scale[2] = {0, 0}, after[4];
    if (steps.size() > 3 || !parse_numbers(steps[0], 4, before)) {
        *error = option + " takes X,Y,W,H[:SW,SH[:X,Y,W,H]], got '" + text + "'";
        return false;
    }
    if (steps.size() >= 2 && !parse_numbers(steps[1], 2, scale)) {
        *error = option + ": the scaled size is SW,SH, got '" + steps[1] + "'";
        return false;
    }
    if (steps.size() == 3) {
        if (!parse_numbers(steps[2], 4, after)) {
            *error = option + ": the second crop is X,Y,W,H, got '" + steps[2] + "'";
            return false;
        }
    } else {
        bool scaled = scale[0] != 0 || scale[1] != 0;
        after[0] = after[1] = 0;
        after[2] = scaled ? scale[0] : before[2];
        after[3] = scaled ? scale[1] : before[3];
    }
    *param = {};
    param->cropBefore = {before[0], before[1], before[2], before[3]};
    param->scale = {scale[0], scale[1]};
    param->cropAfter = {after[0], after[1], after[2], after[3]};
    return true;
}

const char *odd_step(const zelvideo::_resize_param_t &param)
{
    auto odd_crop = [](const zelvideo::_resize_crop_t &crop) {
        return ((crop.x | crop.y | crop.width | crop.height) & 1) != 0;
    };
    if (odd_crop(param.cropBefore))
        return "the first crop";
    if (((param.scale.width | param.scale.height) & 1) != 0)
        return "the scaled size";
    if (odd_crop(param.cropAfter))
        return "the second crop";
    return nullptr;
}

} // namespace capture_syntax
