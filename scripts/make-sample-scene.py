#!/usr/bin/python3
"""Writes the simulator's sample scene: sim/scenes/sample.y4m (a short looped
video) and sim/scenes/sample.png (a still), drawn here from geometry alone so
that the repository carries no third-party images.

The scene has what a person tuning an ISP looks at: a grey ramp (gamma,
contrast, brightness), saturated patches (saturation, hue, white balance),
fine lines (sharpness) and flat areas (noise), with a ball moving across.

Usage: scripts/make-sample-scene.py [OUTPUT_DIR]   (default sim/scenes)
"""
import os
import struct
import sys
import zlib

import numpy as np

WIDTH, HEIGHT, FRAMES = 128, 72, 16
STILL_WIDTH, STILL_HEIGHT = 320, 180


def scene_rgb(width, height, t):
    """The scene at time t (0..1) as an RGB image, values 0..255."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    rgb = np.zeros((height, width, 3))
    # Sky gradient above, a grey ramp band, patches below.
    sky = (0.35 + 0.4 * (1 - y / height))[..., None] * np.array([120, 170, 255])
    rgb[:] = sky
    band = (y >= height * 0.45) & (y < height * 0.6)
    rgb[band] = (x[band] / (width - 1) * 255)[:, None]
    colours = [(230, 40, 40), (40, 200, 60), (40, 70, 230), (240, 220, 40), (230, 60, 220), (40, 220, 230)]
    top = int(height * 0.65)
    for i, colour in enumerate(colours):
        x0, x1 = int(i * width / 6), int((i + 1) * width / 6)
        rgb[top:, x0:x1] = colour
    # Fine vertical lines at the right of the sky: detail for sharpness.
    lines = (y < height * 0.4) & (x > width * 0.75) & (x.astype(int) % 4 < 2)
    rgb[lines] = 30
    # The moving ball.
    cx, cy, r = width * (0.1 + 0.6 * t), height * 0.25, height * 0.12
    ball = (x - cx) ** 2 + (y - cy) ** 2 <= r * r
    rgb[ball] = (255, 190, 60)
    return np.clip(rgb, 0, 255)


def to_i420(rgb):
    """BT.601 limited range, chroma averaged over 2 x 2 pixels."""
    r, g, b = rgb[..., 0], rgb[..., 1], rgb[..., 2]
    yy = 16 + 0.257 * r + 0.504 * g + 0.098 * b
    u = 128 - 0.148 * r - 0.291 * g + 0.439 * b
    v = 128 + 0.439 * r - 0.368 * g - 0.071 * b
    def half(c):
        return (c[0::2, 0::2] + c[1::2, 0::2] + c[0::2, 1::2] + c[1::2, 1::2]) / 4
    planes = [yy, half(u), half(v)]
    return b"".join(np.clip(np.rint(p), 0, 255).astype(np.uint8).tobytes() for p in planes)


def png_bytes(rgb):
    height, width = rgb.shape[:2]
    raw = b"".join(b"\x00" + row.tobytes() for row in np.rint(rgb).astype(np.uint8))
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "sim", "scenes")
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "sample.y4m"), "wb") as video:
        video.write(b"YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n" % (WIDTH, HEIGHT))
        for frame in range(FRAMES):
            video.write(b"FRAME\n")
            video.write(to_i420(scene_rgb(WIDTH, HEIGHT, frame / FRAMES)))
    with open(os.path.join(out, "sample.png"), "wb") as still:
        still.write(png_bytes(scene_rgb(STILL_WIDTH, STILL_HEIGHT, 0.5)))


if __name__ == "__main__":
    main()
