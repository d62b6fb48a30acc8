// view_tap.cpp - copies of views taken on the capture thread.
#include "view_tap.h"

#include <cstring>

namespace zcam {

void FrameCopy::assign(const ViewImage &image, const FrameMark &frame_mark)
{
    format = image.format;
    mark = frame_mark;
    pixels.resize(image.complete ? image.bytes : 0);
    if (!pixels.empty())
        memcpy(pixels.data(), image.data, pixels.size());
}

ViewImage FrameCopy::image() const
{
    return ViewImage{format, pixels.empty() ? nullptr : pixels.data(), pixels.size(), !pixels.empty()};
}

} // namespace zcam
