#!/usr/bin/env python3
"""Times zytview and ffmpeg, which convert Bayer frames of 12 megapixels and 16 bits to PNGs of 16 bits per channel.

usage: viewbench.py ZYTVIEW DIRECTORY >round.json

One frame is incompressible noise, the other is smooth; each is converted once. Prints wall times in the format of
Google Benchmark's JSON, and the peak memory of each program in KiB. The frames are created once.
"""
import array
import json
import math
import os
import sys
import time

WIDTH, HEIGHT = 4000, 3000


def smooth_frame():
    """Yields diagonal waves with a brightness per colour: row y is the part of a longer row that begins at y."""
    def wave(x, weight):
        return int(weight * (32768 + 14000 * math.sin(x / 700) + 9000 * math.cos(x / 450)))

    waves = [array.array("H", (wave(x, weights[x % 2]) for x in range(WIDTH + HEIGHT))).tobytes()
             for weights in ((0.6, 1.0), (1.0, 0.7))]
    for y in range(HEIGHT):
        begin = y // 2 * 2 * 2  # whole pairs of columns, two bytes each
        yield waves[y % 2][begin:begin + 2 * WIDTH]


def make_frames(directory):
    frames = {"noise": lambda: (os.urandom(2 * WIDTH) for _ in range(HEIGHT)), "smooth": smooth_frame}
    paths = {}
    for name, rows in frames.items():
        paths[name] = f"{directory}/{name}_{WIDTH}x{HEIGHT}_Raw16.raw"
        if not os.path.exists(paths[name]) or os.path.getsize(paths[name]) != 2 * WIDTH * HEIGHT:
            with open(paths[name], "wb") as file:
                file.writelines(rows())
    return paths


def run(command):
    """Returns nanoseconds and KiB."""
    start = time.perf_counter_ns()
    child = os.posix_spawnp(command[0], command, os.environ, file_actions=[
        (os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0), (os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0)])
    _, status, usage = os.wait4(child, 0)
    if status != 0:
        sys.exit(f"{' '.join(command)} failed")
    return time.perf_counter_ns() - start, usage.ru_maxrss


def main():
    zytview, directory = sys.argv[1:]
    benchmarks, memory = [], {"ours": 0, "peer": 0}
    for name, frame in make_frames(directory).items():
        commands = {
            "ours": [zytview, "--bayer", "rggb", frame, f"{directory}/ours.png"],
            "peer": ["ffmpeg", "-v", "error", "-y", "-f", "rawvideo", "-pix_fmt", "bayer_rggb16le", "-s",
                     f"{WIDTH}x{HEIGHT}", "-i", frame, "-pix_fmt", "rgb48be", f"{directory}/peer.png"],
        }
        for side, command in commands.items():
            nanos, kibibytes = run(command)
            memory[side] = max(memory[side], kibibytes)
            benchmarks.append({"name": f"view/{side}/{name}", "run_name": f"view/{side}/{name}",
                               "run_type": "iteration", "real_time": nanos, "time_unit": "ns"})
    json.dump({"benchmarks": benchmarks, "view_memory": memory}, sys.stdout)


main()
