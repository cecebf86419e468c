"""Converts a picture to a raw frame like a camera's: NV12, 8 bits, full range, no padding.

usage: ppm2nv12.py PICTURE.ppm FRAME.nv12     (binary PPM, 8 bits, both sides even)
"""
import sys


def main():
    picture, frame = sys.argv[1:]
    header, pixels = open(picture, "rb").read().split(b" 255\n", 1)
    width, height = map(int, header.split()[1:])
    luma = bytes((77 * r + 150 * g + 29 * b) >> 8 for r, g, b in zip(pixels[::3], pixels[1::3], pixels[2::3]))
    chroma = bytearray()
    for y in range(0, height, 2):
        for x in range(0, width, 2):
            at = 3 * (y * width + x)
            r, g, b = pixels[at:at + 3]
            chroma += bytes((128 + ((128 * b - 43 * r - 85 * g) >> 8), 128 + ((128 * r - 107 * g - 21 * b) >> 8)))
    open(frame, "wb").write(luma + chroma)


if __name__ == "__main__":
    main()
