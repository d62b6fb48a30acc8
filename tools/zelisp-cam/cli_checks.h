/*
 * cli_checks.h - the checks of zelisp-cam's command-line values, written so
 * that a wrong value is answered with a plain sentence ("--frames: a whole
 * number from 1 to 2147483647 is needed, got '0'") instead of the parser's
 * own words, and the parser's other errors rewritten the same way. The
 * checks add nothing to the help: each option's sentence gives its range.
 */
#ifndef ZELISP_CAM_CLI_CHECKS_H
#define ZELISP_CAM_CLI_CHECKS_H

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace zcam {

// A whole number in [min, max] (decimal, or 0x hexadecimal).
CLI::Validator whole_number(long long min, long long max);
// A camera number, 0..11.
CLI::Validator camera_number();
// A length of capture: 0.001 to 31536000 seconds (nan, inf, 0 and anything
// shorter than a millisecond are refused).
CLI::Validator capture_seconds();
// One of the listed words.
CLI::Validator one_of(const std::vector<std::string> &words, const std::string &what);

// The sentence for a parse error, without the "zelisp-cam: " prefix.
// argv is looked at to name an unknown command.
std::string parse_error_sentence(const CLI::App &app, const CLI::ParseError &error, int argc, char **argv);

} // namespace zcam

#endif
