#!/usr/bin/env python3
"""Creates the demo's scene, three faces in front of hills, as a PPM picture, and the faces as a detector reports them.

usage: makescene.py PICTURE.ppm FACES.txt

Faces are given in pixels of a 4000x3000 sensor. The picture shows the central 16:9 part, scaled to 1280x720. Face
positions in the picture are computed here, independently of the library, so a mark beside a face in the demo's output
is a fault in the library's mapping.
"""
import math
import sys

SENSOR = (4000, 3000)
PICTURE = (1280, 720)
FACES = [(1100, 520, 700, 840), (820, 1740, 560, 680), (1360, 2860, 640, 780)]  # top, left, width, height
SCALE = PICTURE[0] / SENSOR[0]
CUT = (SENSOR[1] * SCALE - PICTURE[1]) / 2  # rows cut off above and below


def background(x, y):
    if y > 540 + 40 * math.sin(x / 170) + 15 * math.sin(x / 61):
        return (60 + y // 12, 110 + y // 20, 50)
    return (110 + y // 8, 150 + y // 10, min(255, 240 - y // 12))


def face_pixel(u, v, tone):
    """Returns the colour at (u, v), each from -1 to 1 across the face's rectangle, or None outside the face."""
    if u * u + v * v > 1:
        return None
    for eye in (-0.38, 0.38):
        if (u - eye) ** 2 + ((v + 0.2) * 1.2) ** 2 < 0.012:
            return (30, 25, 30)
    if 0.25 < u * u * 0.9 + (v - 0.05) ** 2 < 0.33 and v > 0.3:
        return (150, 40, 50)
    if v < -0.55 + 0.2 * u * u:
        return (70, 45, 30)
    shade = 1 - 0.25 * (u * u + v * v)
    return tuple(int(c * shade) for c in tone)


def main():
    picture, faces = sys.argv[1:3]
    width, height = PICTURE
    rows = [[background(x, y) for x in range(width)] for y in range(height)]
    tones = [(235, 190, 160), (175, 125, 90), (250, 210, 190)]
    for (top, left, w, h), tone in zip(FACES, tones):
        x0, y0 = left * SCALE, top * SCALE - CUT
        x1, y1 = (left + w) * SCALE, (top + h) * SCALE - CUT
        for y in range(max(0, int(y0)), min(height, int(y1) + 1)):
            for x in range(max(0, int(x0)), min(width, int(x1) + 1)):
                pixel = face_pixel(2 * (x - x0) / (x1 - x0) - 1, 2 * (y - y0) / (y1 - y0) - 1, tone)
                if pixel:
                    rows[y][x] = pixel
    with open(picture, "wb") as out:
        out.write(b"P6 %d %d 255\n" % PICTURE)
        for row in rows:
            out.write(bytes(min(255, c) for pixel in row for c in pixel))
    with open(faces, "w", encoding="utf-8") as out:
        out.write("crop 0 0 %d %d\n" % SENSOR)
        for rect in FACES:
            out.write("face %d %d %d %d\n" % rect)


main()
