"""examples/python/preview.py run as a user runs it: its output lines, and
PNG files that decode to the view sizes and carry the printed frame number."""

import os
import re
import subprocess
import sys

import cv2

from conftest import read_stamp

EXAMPLE = os.path.join(os.environ.get("ZELISP_SOURCE_DIR", "."), "examples", "python", "preview.py")


def run(tmp_path, *arguments, config="[camera 1]\nfps = 60\n"
        "view0 = NV12 192x108\nview1 = RGB3 128x72\nview2 = YUYV 96x64\n"):
    board = tmp_path / "board.ini"
    board.write_text("[cameras]\npresent = 0, 1\n" + config)
    # The child inherits the preloaded simulator and reads this board.
    env = dict(os.environ, ZELISP_SIM_CONFIG=str(board))
    return subprocess.run([sys.executable, EXAMPLE, *arguments], env=env, capture_output=True, text=True,
                          timeout=300)


def test_preview_writes_a_png_per_view_with_the_frame_number(tmp_path):
    out = tmp_path / "png"
    result = run(tmp_path, "--camera", "1", "--out", str(out), "--skip", "2")
    assert result.returncode == 0, result.stderr
    lines = [line for line in result.stdout.splitlines() if line.startswith("camera 1 frame")]
    sizes = {0: ("NV12", 192, 108), 1: ("RGB3", 128, 72), 2: ("YUYV", 96, 64)}
    assert len(lines) == 3
    for view, line in enumerate(lines):
        fourcc, width, height = sizes[view]
        path = out / f"camera1-view{view}.png"
        match = re.fullmatch(rf"camera 1 frame (\d+): view {view} {fourcc} {width}x{height} -> {re.escape(str(path))}",
                             line)
        assert match, line
        image = cv2.imread(str(path))
        assert image.shape == (height, width, 3)
        assert read_stamp(image[:, :, 1]) == int(match.group(1))


def test_preview_reports_a_missing_camera(tmp_path):
    result = run(tmp_path, "--camera", "5", "--out", str(tmp_path))
    assert result.returncode == 1
    # The library's own line first (logging's default: standard error), then the script's.
    assert result.stderr.splitlines()[0] == "video device /dev/video5 not exist"
    assert result.stderr.splitlines()[1].startswith("preview.py: isp_open_video: ")
