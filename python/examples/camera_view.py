#!/usr/bin/env python3
"""A camera through OpenCV (Debian's python3-opencv): shown live with cv2.imshow where a display exists,
or written to a video file with --write.

    python3 camera_view.py --sensor wide               # a window; q or Esc ends it
    python3 camera_view.py --sensor narrow --write narrow.avi --frames 90
"""
import argparse

import cv2

import sensoripc


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sensor", default="wide")
    parser.add_argument("--app", default=None)
    parser.add_argument("--write", metavar="FILE", help="write an MJPG video instead of showing a window")
    parser.add_argument("--frames", type=int, default=0, help="stop after N frames (0: until q or Ctrl-C)")
    args = parser.parse_args()

    writer = None
    with sensoripc.Consumer(sensors=[args.sensor], app=args.app) as consumer:
        for n, frame in enumerate(consumer, 1):
            with frame:
                bgr = cv2.cvtColor(frame.to_rgb(), cv2.COLOR_RGB2BGR)  # a new picture: the frame goes back now
                title = f"{frame.sensor} #{frame.counter}"
            if args.write:
                if writer is None:
                    writer = cv2.VideoWriter(args.write, cv2.VideoWriter_fourcc(*"MJPG"), 30.0,
                                             (bgr.shape[1], bgr.shape[0]))
                writer.write(bgr)
            else:
                cv2.imshow(args.sensor, bgr)
                cv2.setWindowTitle(args.sensor, title)
                if cv2.waitKey(1) & 0xFF in (ord("q"), 27):
                    break
            if args.frames and n >= args.frames:
                break
    if writer is not None:
        writer.release()
        print(f"wrote {args.write}")


if __name__ == "__main__":
    main()
