/*
 * resize_syntax.h - the crop/scale/crop record in text:
 * X,Y,W,H[:SW,SH[:X,Y,W,H]], the first crop, the scaled size, the second
 * crop. Without a scaled size nothing is scaled; without a second crop the
 * whole scaled (or cropped) image is kept.
 */
#ifndef ZELISP_CAPTURE_SYNTAX_RESIZE_SYNTAX_H
#define ZELISP_CAPTURE_SYNTAX_RESIZE_SYNTAX_H

#include <string>

#include "zelisp.h"

namespace capture_syntax {

// False with *error naming `option` ("--resize", "resize") and the record
// untouched when the text does not parse. The library judges the values.
bool parse_resize(const std::string &text, const std::string &option, zelvideo::_resize_param_t *param,
                  std::string *error);

// The ISP works on pixel pairs, and the library refuses (-15) a record with
// an odd position or size. Names the first step holding one ("the first
// crop", "the scaled size", "the second crop", in the order the library
// checks them), or nullptr when every value is even.
const char *odd_step(const zelvideo::_resize_param_t &param);

} // namespace capture_syntax

#endif
