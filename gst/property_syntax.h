/*
 * property_syntax.h - the text properties of the elements, in the same
 * syntax as zelisp-cam's options, so a command line and a pipeline read
 * alike: "drop" (T/D), "resize" (X,Y,W,H[:SW,SH[:X,Y,W,H]]), "cameras" and
 * "views" (comma lists) and "trigger" (none|internal|external P1 P2 P3).
 */
#ifndef GST_ZELISP_PROPERTY_SYNTAX_H
#define GST_ZELISP_PROPERTY_SYNTAX_H

#include <cstdint>
#include <string>
#include <vector>

#include "zelisp.h"

namespace gstzelisp {

struct DropRatio {
    int total = 30; // 30/0: decimation off
    int drop = 0;
};

struct TriggerSetting {
    enum Mode { None, Internal, External } mode = None;
    uint32_t param[3] = {0, 0, 0};
};

// Each returns false with *error set (and the output untouched) when the
// text does not parse. The library still judges the values themselves.
bool parse_drop(const std::string &text, DropRatio *ratio, std::string *error);
std::string format_drop(const DropRatio &ratio);
// An empty text is no resize (an all-zero record).
bool parse_resize(const std::string &text, zelvideo::_resize_param_t *param, std::string *error);
std::string format_resize(const zelvideo::_resize_param_t &param);
// Distinct numbers 0..`highest`, at most `most` of them, in the order given.
bool parse_number_list(const std::string &text, int highest, size_t most, std::vector<int> *numbers,
                       std::string *error);
std::string format_number_list(const std::vector<int> &numbers);
// Words separated by spaces or commas: "external 1 2 0", "internal,0,0".
bool parse_trigger(const std::string &text, TriggerSetting *trigger, std::string *error);
std::string format_trigger(const TriggerSetting &trigger);

// Which sequence numbers decimation skips on purpose, the rule
// isp_get_expected_frame applies, so that they are not counted as dropped.
class DecimationRule {
public:
    DecimationRule() = default;
    explicit DecimationRule(const DropRatio &ratio);
    // How many sequence numbers in [first, last] the rule skips.
    uint64_t skipped_between(uint32_t first, uint32_t last) const;

private:
    bool keep_one_ = false;
    uint32_t interval_ = 0;
};

} // namespace gstzelisp

#endif
