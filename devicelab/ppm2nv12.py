"""Turns a picture into the raw frame that a camera would deliver: NV12, 8 bits, video range, no padding.

usage: ppm2nv12.py PICTURE.ppm FRAME.nv12     (binary PPM, 8 bits, both sides even)
"""
import sys

header, pixels = open(sys.argv[1], "rb").read().split(b" 255\n", 1)
width, height = map(int, header.split()[1:])
luma = bytes(16 + ((66 * r + 129 * g + 25 * b) >> 8) for r, g, b in zip(pixels[::3], pixels[1::3], pixels[2::3]))
chroma = bytearray()
for y in range(0, height, 2):
    for x in range(0, width, 2):
        at = 3 * (y * width + x)
        r, g, b = pixels[at:at + 3]
        chroma += bytes((128 + ((112 * b - 38 * r - 74 * g) >> 8), 128 + ((112 * r - 94 * g - 18 * b) >> 8)))
open(sys.argv[2], "wb").write(luma + chroma)
