/*
 * numbers.h - the words and numbers the capture settings are made of.
 */
#ifndef ZELISP_CAPTURE_SYNTAX_NUMBERS_H
#define ZELISP_CAPTURE_SYNTAX_NUMBERS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace capture_syntax {

// The parts between any of `separators` (empty parts kept: "1,,2" has three).
std::vector<std::string> split(const std::string &text, const char *separators);
// A whole unsigned number (decimal, 0x hex or 0 octal) no larger than
// `limit`; no sign, no surrounding space.
bool parse_unsigned(const std::string &text, unsigned long long limit, unsigned long long *value);
// Exactly `count` comma-separated 16-bit numbers (pixel positions and sizes).
bool parse_numbers(const std::string &text, size_t count, uint16_t *out);

} // namespace capture_syntax

#endif
