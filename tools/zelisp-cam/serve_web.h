/*
 * serve_web.h - the web console's page: static files compiled into the tool
 * (generated from tools/zelisp-cam/web/ at build time).
 */
#ifndef ZELISP_CAM_SERVE_WEB_H
#define ZELISP_CAM_SERVE_WEB_H

#include <cstddef>
#include <vector>

namespace zcam {

struct WebFile {
    const char *path; // "/index.html"
    const char *type; // its Content-Type
    const char *data;
    size_t size;
};

const std::vector<WebFile> &web_files();

} // namespace zcam

#endif
