/*
 * raw_writer.h - a view's image written byte for byte as the ISP laid it out
 * in its plane (for NV12: the luma rows, then the interleaved chroma rows).
 */
#ifndef ZELISP_CAM_RAW_WRITER_H
#define ZELISP_CAM_RAW_WRITER_H

#include <string>

#include "formats.h"

namespace zcam {

// Returns "" or why the file could not be written.
std::string write_raw(const std::string &path, const ViewImage &image);

} // namespace zcam

#endif
