/*
 * property_syntax.h - the text properties of the elements, in the same
 * syntax as zelisp-cam's options, so a command line and a pipeline read
 * alike: "drop" (T/D), "resize" (X,Y,W,H[:SW,SH[:X,Y,W,H]]), "cameras" and
 * "views" (comma lists) and "trigger" (none|internal|external P1 P2 P3).
 * The syntax itself is capture_syntax's, shared with the tool.
 */
#ifndef GST_ZELISP_PROPERTY_SYNTAX_H
#define GST_ZELISP_PROPERTY_SYNTAX_H

#include <cstdint>
#include <string>
#include <vector>

#include "decimation.h"
#include "trigger_syntax.h"
#include "zelisp.h"

namespace gstzelisp {

using capture_syntax::DecimationRule;
using capture_syntax::DropRatio;
using capture_syntax::TriggerSetting;

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

} // namespace gstzelisp

#endif
