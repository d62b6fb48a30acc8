/*
 * help_format.h - how zelisp-cam's --help reads: each option with the name
 * of its value only ("--frames N"), and a sentence that says what it does,
 * its range, its default and what it cannot go with. CLI11 would add its
 * own shorthand to the name ("INT:1 to 2147483647=100 Excludes: --seconds").
 */
#ifndef ZELISP_CAM_HELP_FORMAT_H
#define ZELISP_CAM_HELP_FORMAT_H

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

namespace zcam {

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option_opts(const CLI::Option *option) const override;
    // The sentences, wrapped to an 80-column terminal beside the names.
    std::string make_option_desc(const CLI::Option *option) const override;
    std::string make_subcommand(const CLI::App *command) const override;
    std::string make_description(const CLI::App *app) const override;
};

// Words filled into lines of at most `width` characters; the line breaks
// the text has (a list of values) are kept.
std::string wrap(const std::string &text, size_t width);

// The formatter every command of the tool shares.
std::shared_ptr<HelpFormatter> help_formatter();

// The user guide as installed with the program: found from where the
// program runs, so that an install into any prefix, or an unpacked
// package, names its own copy; the configured install path otherwise (a
// program run from its build tree).
std::string guide_path();

} // namespace zcam

#endif
