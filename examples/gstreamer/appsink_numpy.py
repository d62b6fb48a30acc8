#!/usr/bin/python3
"""Frames of camera 0 as numpy arrays, through appsink (for inference, OpenCV...).

    zelisp-sim-run -- /usr/bin/python3 examples/gstreamer/appsink_numpy.py [FRAMES]

Prints the frame's sequence number (the buffer offset), its shape and mean
luma. The array is a view of the mapped GStreamer buffer: copy it
(array.copy()) to keep it after the buffer is unmapped.
"""
import sys

import gi
import numpy

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

Gst.init(None)
frames = int(sys.argv[1]) if len(sys.argv) > 1 else 5
pipeline = Gst.parse_launch(
    f"zelispsrc camera=0 view=2 num-buffers={frames} ! videoconvert ! video/x-raw,format=GRAY8 ! "
    "appsink name=frames max-buffers=2 sync=false")
sink = pipeline.get_by_name("frames")
pipeline.set_state(Gst.State.PLAYING)
for _ in range(frames):
    sample = sink.emit("pull-sample")
    if sample is None:
        break
    caps = sample.get_caps().get_structure(0)
    width, height = caps.get_value("width"), caps.get_value("height")
    buffer = sample.get_buffer()
    ok, info = buffer.map(Gst.MapFlags.READ)
    if not ok:
        break
    # GRAY8 rows from videoconvert are padded to 4 bytes.
    stride = (width + 3) // 4 * 4
    image = numpy.ndarray((height, stride), dtype=numpy.uint8, buffer=info.data)[:, :width]
    print(f"frame {buffer.offset}: {image.shape[1]}x{image.shape[0]}, mean luma {image.mean():.1f}")
    buffer.unmap(info)
pipeline.set_state(Gst.State.NULL)
