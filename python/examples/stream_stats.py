#!/usr/bin/env python3
"""Numpy statistics of a live stream: per frame the luma's mean and spread and the chroma's means,
straight from the frame buffer (no copy), then a summary with the frames lost by counter.

    python3 stream_stats.py --sensor wide --frames 90
"""
import argparse

import numpy as np

import sensoripc


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sensor", default="wide", help="sensor name or id (default wide)")
    parser.add_argument("--frames", type=int, default=90)
    parser.add_argument("--app", default=None, help="application name or number")
    args = parser.parse_args()

    means = []
    with sensoripc.Consumer(sensors=[args.sensor], app=args.app) as consumer:
        for _, frame in zip(range(args.frames), consumer):
            with frame:
                first = frame.planes[0]
                line = f"{frame.sensor} #{frame.counter:6d} {frame.width}x{frame.height} {frame.format}: " \
                       f"mean {first.mean():7.2f} std {first.std():7.2f}"
                if frame.format in ("nv12", "nv21"):
                    u, v = frame.planes[1][..., 0].mean(), frame.planes[1][..., 1].mean()
                    line += f"  chroma {u:6.2f} {v:6.2f}"
                means.append(first.mean())
                name = frame.sensor
            print(line)
        stats = consumer.stats[name]
    print(f"{len(means)} frames, mean of means {np.mean(means):.2f}, gaps {stats['gaps']}")


if __name__ == "__main__":
    main()
