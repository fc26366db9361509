#!/usr/bin/env python3
"""Draws the icons and writes the files of the sample apps under examples/apps.

The apps stand in the repository; this is how they were made. Needs nothing but Python's standard library.
"""
import math
import pathlib
import struct
import zlib

SIZE = 180
SAMPLES = 3


def png(pixels):
    rows = b"".join(b"\0" + bytes(channel for pixel in row for channel in pixel) for row in pixels)
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    header = struct.pack(">IIBBBBB", SIZE, SIZE, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b"")


def mix(a, b, t):
    return tuple(x + (y - x) * t for x, y in zip(a, b))


def circle(x, y, cx, cy, r):
    return math.hypot(x - cx, y - cy) < r


def box(x, y, left, top, right, bottom):
    return left < x < right and top < y < bottom


def wave(x, y, level, height, length, phase=0.0):
    return y > level + height * math.sin(2 * math.pi * (x / length) + phase)


WHITE, DARK = (250, 250, 250), (35, 38, 48)

# Each drawing answers for a point of the unit square with a colour, or None for the background.


def tideline(x, y):
    if circle(x, y, 0.66, 0.32, 0.13):
        return (255, 221, 120)
    if wave(x, y, 0.72, 0.04, 0.5, 1.5):
        return (18, 74, 130)
    if wave(x, y, 0.58, 0.05, 0.6):
        return (52, 140, 196)
    return None


def kettle(x, y):
    if circle(x, y, 0.5, 0.6, 0.24) and y > 0.45 or box(x, y, 0.3, 0.4, 0.7, 0.46):
        return WHITE
    if box(x, y, 0.46, 0.33, 0.54, 0.41):
        return WHITE
    if 0.17 < math.hypot(x - 0.5, y - 0.42) < 0.22 and y < 0.36:
        return DARK
    if 0.7 < x < 0.86 and abs(y - (0.62 - 1.1 * (x - 0.7))) < 0.05:
        return WHITE
    return None


def marrow(x, y):
    if box(x, y, 0.26, 0.2, 0.74, 0.82):
        for line in (0.36, 0.48, 0.6):
            if box(x, y, 0.34, line, 0.66 if line < 0.55 else 0.54, line + 0.035):
                return (160, 150, 120)
        return (255, 250, 232)
    return None


def fernbook(x, y):
    if abs(x - 0.5) < 0.015 and 0.2 < y < 0.84:
        return WHITE
    for step in range(6):
        root = 0.8 - step * 0.1
        reach = 0.27 - step * 0.035
        across = abs(x - 0.5)
        if across < reach and abs(y - (root - across * 0.7)) < 0.032 * (1 - across / reach) + 0.008:
            return WHITE
    return None


def parcel(x, y):
    if box(x, y, 0.24, 0.34, 0.76, 0.78):
        return (120, 74, 38) if abs(x - 0.5) < 0.045 else (226, 176, 120)
    if box(x, y, 0.2, 0.24, 0.8, 0.35):
        return (120, 74, 38) if abs(x - 0.5) < 0.045 else (240, 198, 146)
    return None


def loom(x, y):
    if not box(x, y, 0.18, 0.18, 0.82, 0.82):
        return None
    column, row = int((x - 0.18) / 0.128), int((y - 0.18) / 0.128)
    inner = ((x - 0.18) % 0.128 > 0.016) and ((y - 0.18) % 0.128 > 0.016)
    return ((250, 214, 90) if (column + row) % 2 else WHITE) if inner else None


def harbor(x, y):
    if abs(x - 0.5) < 0.035 and 0.3 < y < 0.78 or box(x, y, 0.36, 0.38, 0.64, 0.44):
        return WHITE
    if 0.045 < math.hypot(x - 0.5, y - 0.25) < 0.085:
        return WHITE
    if 0.2 < math.hypot(x - 0.5, y - 0.54) < 0.27 and y > 0.6:
        return WHITE
    return None


def quill(x, y):
    along, across = (x + (1 - y)) / 2, (x - (1 - y))
    if 0.24 < along < 0.8 and abs(across) < 0.32 * math.sin(math.pi * (along - 0.24) / 0.56) * 0.6:
        return DARK if abs(across) < 0.014 else WHITE
    if 0.16 < along < 0.3 and abs(across) < 0.018:
        return DARK
    return None


def sparrow(x, y):
    if circle(x, y, 0.36, 0.68, 0.1) or circle(x, y, 0.66, 0.6, 0.1):
        return WHITE
    if box(x, y, 0.42, 0.26, 0.465, 0.68) or box(x, y, 0.715, 0.2, 0.76, 0.6):
        return WHITE
    if 0.42 < x < 0.76 and abs(y - (0.29 - (x - 0.42) * 0.2)) < 0.05:
        return WHITE
    return None


def pebble(x, y):
    if circle(x, y, 0.4, 0.62, 0.18):
        return (214, 218, 224)
    if circle(x, y, 0.64, 0.58, 0.13):
        return (170, 176, 188)
    if circle(x, y, 0.54, 0.36, 0.1):
        return (240, 242, 246)
    return None


# Name: drawing, colours of the background from top to bottom, kilobytes of resources.
APPS = {
    "Tideline": (tideline, (120, 200, 255), (250, 214, 180), 60),
    "Kettle": (kettle, (255, 140, 90), (220, 60, 70), 24),
    "Marrow": (marrow, (255, 214, 90), (244, 168, 40), 12),
    "Fernbook": (fernbook, (70, 180, 120), (20, 104, 78), 220),
    "Parcel": (parcel, (150, 220, 220), (60, 150, 170), 40),
    "Loom": (loom, (150, 90, 210), (84, 40, 150), 120),
    "Harbor": (harbor, (50, 110, 190), (14, 46, 100), 8),
    "Quill": (quill, (240, 130, 170), (180, 50, 120), 90),
    "Sparrow": (sparrow, (90, 100, 120), (32, 36, 52), 150),
    "Pebble": (pebble, (90, 150, 140), (40, 84, 90), 60),
}

INFO = """<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>BXBundleIdentifier</key>
	<string>org.example.{lower}</string>
	<key>BXBundleVersion</key>
	<string>1.0</string>
	<key>BXBundleExecutable</key>
	<string>{name}</string>
	<key>BXBundleDisplayName</key>
	<string>{name}</string>
	<key>BXBundleIconFile</key>
	<string>Icon.png</string>
</dict>
</plist>
"""

METADATA = """<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>title</key>
	<string>{name}</string>
	<key>bundleVersion</key>
	<string>1.0</string>
	<key>zuvexId</key>
	<string>reader@example.org</string>
</dict>
</plist>
"""

PROGRAM = """#!/bin/sh
# {name}, a sample app: runs until it is asked to end.
trap 'exit 0' TERM INT
while :; do sleep 1; done
"""


def draw(picture, top, bottom):
    rows = []
    for row in range(SIZE):
        line = []
        for column in range(SIZE):
            total = (0.0, 0.0, 0.0)
            for i in range(SAMPLES * SAMPLES):
                x = (column + (i % SAMPLES + 0.5) / SAMPLES) / SIZE
                y = (row + (i // SAMPLES + 0.5) / SAMPLES) / SIZE
                colour = picture(x, y) or mix(top, bottom, y)
                total = tuple(t + c for t, c in zip(total, colour))
            line.append(tuple(round(t / SAMPLES / SAMPLES) for t in total))
        rows.append(line)
    return png(rows)


def resource(name, kilobytes):
    """Text that compresses about as well as an app's resources do."""
    state, words = zlib.crc32(name.encode()), []
    size = 0
    while size < kilobytes * 1024:
        state = (state * 1103515245 + 12345) & 0x7FFFFFFF
        word = format(state >> 7, "x")
        words.append(word)
        size += len(word) + 1
    return " ".join(words)[: kilobytes * 1024]


def main():
    apps = pathlib.Path(__file__).parent / "apps"
    for name, (picture, top, bottom, kilobytes) in APPS.items():
        bundle = apps / name / f"{name}.app"
        bundle.mkdir(parents=True, exist_ok=True)
        icon = draw(picture, top, bottom)
        (bundle / "Icon.png").write_bytes(icon)
        (apps / name / "TamblinArtwork").write_bytes(icon)
        (apps / name / "TamblinMetadata.plist").write_text(METADATA.format(name=name))
        (bundle / "Info.plist").write_text(INFO.format(name=name, lower=name.lower()))
        program = bundle / name
        program.write_text(PROGRAM.format(name=name))
        program.chmod(0o755)
        (bundle / "Resources").mkdir(exist_ok=True)
        (bundle / "Resources" / "content.txt").write_text(resource(name, kilobytes))


main()
