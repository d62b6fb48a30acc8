// raw_writer.cpp - writing a view's plane bytes to a file.
#include "raw_writer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zcam {

std::string write_raw(const std::string &path, const ViewImage &image)
{
    if (image.data == nullptr)
        return "the view's plane is not mapped";
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "wb"), fclose);
    if (!file)
        return strerror(errno);
    if (fwrite(image.data, 1, image.bytes, file.get()) != image.bytes)
        return strerror(errno);
    if (fclose(file.release()) != 0)
        return strerror(errno);
    return "";
}

} // namespace zcam
