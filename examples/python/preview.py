#!/usr/bin/python3
"""preview.py - saves one PNG per view of a camera's frame, with OpenCV.

On the board:          /usr/bin/python3 preview.py --camera 0 --views 0,1,2
Without the board:     zelisp-sim-run -- /usr/bin/python3 preview.py --camera 0

Each image is converted straight from the mapped buffer (View.to_bgr); the
frame goes back to the driver when the with block ends.
"""

import argparse
import os
import sys

import zelisp


def parse_arguments():
    parser = argparse.ArgumentParser(description="Write a PNG of each view of one camera frame.")
    parser.add_argument("--camera", type=int, default=0, help="camera number, 0..11 (default 0)")
    parser.add_argument("--mode", type=int, default=1, choices=(1, 2), help="open mode (default 1)")
    parser.add_argument("--views", default="0,1,2", help="views to capture, such as 0,2 (default 0,1,2)")
    parser.add_argument("--skip", type=int, default=3,
                        help="frames to let pass first, so that exposure settles (default 3)")
    parser.add_argument("--out", default=".", help="directory for the PNG files (default .)")
    parser.add_argument("--timeout-ms", type=int, default=2000, help="longest wait for a frame (default 2000)")
    return parser.parse_args()


def main():
    args = parse_arguments()
    views = tuple(int(view) for view in args.views.split(","))
    os.makedirs(args.out, exist_ok=True)
    try:
        import cv2
    except ImportError:
        print("preview.py needs OpenCV: apt-get install python3-opencv, and run /usr/bin/python3", file=sys.stderr)
        return 2
    try:
        with zelisp.Camera(args.camera, mode=args.mode) as camera:
            camera.configure(views=views, buffers=4)
            camera.start()
            for _ in camera.frames(count=args.skip, timeout_ms=args.timeout_ms):
                pass
            with camera.get_frame(timeout_ms=args.timeout_ms) as frame:
                for number, view in sorted(frame.views.items()):
                    path = os.path.join(args.out, f"camera{args.camera}-view{number}.png")
                    if not cv2.imwrite(path, view.to_bgr()):
                        print(f"could not write {path}", file=sys.stderr)
                        return 1
                    print(f"camera {args.camera} frame {frame.sequence}: view {number} "
                          f"{view.format} {view.width}x{view.height} -> {path}")
            camera.stop()
    except zelisp.Error as error:
        print(f"preview.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
