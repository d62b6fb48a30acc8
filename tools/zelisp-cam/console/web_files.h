/*
 * web_files.h - the web console's page: static files compiled into the tool
 * (generated from tools/zelisp-cam/console/web/ at build time), so the
 * board needs nothing but the tool.
 */
#ifndef ZELISP_CAM_CONSOLE_WEB_FILES_H
#define ZELISP_CAM_CONSOLE_WEB_FILES_H

#include <cstddef>
#include <string>
#include <vector>

namespace zcam {

struct WebFile {
    const char *path; // "/index.html"
    const char *type; // its Content-Type
    const char *data;
    size_t size;
};

const std::vector<WebFile> &web_files();
// The file served at `path` ("/" is the page); null when there is none.
const WebFile *find_web_file(const std::string &path);

} // namespace zcam

#endif
