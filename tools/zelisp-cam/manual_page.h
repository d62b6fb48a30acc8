/*
 * manual_page.h - zelisp-cam's manual page, written from the same commands,
 * options and sentences as its --help, so that the manual covers every
 * command and option and cannot fall behind. The build runs
 * "zelisp-cam --manual" and installs the result as zelisp-cam(1).
 */
#ifndef ZELISP_CAM_MANUAL_PAGE_H
#define ZELISP_CAM_MANUAL_PAGE_H

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace zcam {

// A section of the manual beyond the commands: its title and paragraphs.
struct ManualSection {
    std::string title;
    std::vector<std::string> paragraphs;
};

// The page in roff (man macros): NAME from `summary`, the synopsis, the
// description, one subsection per command with each option, then
// `sections`.
std::string manual_page(const CLI::App &app, const std::string &summary, const std::string &version,
                        const std::vector<ManualSection> &sections);

} // namespace zcam

#endif
