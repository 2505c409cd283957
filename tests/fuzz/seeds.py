#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the first inputs of the fuzz targets into a directory, the same ones every time: seeds.py DIRECTORY"""
import pathlib
import random
import sys

directory = pathlib.Path(sys.argv[1])


def write(target, inputs):
    place = directory / target
    place.mkdir(parents=True, exist_ok=True)
    for old in place.iterdir():
        old.unlink()
    for number, data in enumerate(inputs):
        (place / f"{number:03}").write_bytes(data)


class Bytes:
    """Any bytes; getrandbits alone gives the same in every version of Python."""

    def __init__(self, seed):
        self.random = random.Random(seed)

    def __call__(self, count):
        return bytes(self.random.getrandbits(8) for _ in range(count))


# Width, then calls of one routine (17 in the target's table), its type first where it has one; then filters.
def matrix():
    some = Bytes(1)
    for routine in range(17):
        for depth in range(8):
            yield bytes([depth % 3, routine, depth]) + some(40) + bytes([routine, depth + 64]) + some(60)
    for mixed in range(24):
        yield bytes([mixed % 3]) + some(200)
    for states in range(9):
        for measurements in range(0, 7, 2):
            # Dimensions, four matrices of the model, lent or not; then a state, and predict and correct in turn.
            head = bytes([224 + states % 3, 0, states, measurements, 0, 0, 0, 0, 0, 2, 0, 0, states % 2, 0])
            yield head + bytes([0, 1, 0, 0]) + b"".join(bytes([1, 3, 0, 2, 0]) + some(measurements) for _ in range(4))
    for _ in range(16):
        yield bytes([224]) + some(120)


# Width, six parameters, then frames of objects that move, meet, vanish and come back.
def tracker():
    some = Bytes(2)
    for scene in range(60):
        count = 1 + scene % 4
        capacity, hits, misses = 2 + scene % 12, 2 + scene % 4, 2 + scene % 8
        data = bytes([scene % 3, capacity, hits, misses, scene % 4, 0, scene % 3])
        for frame in range(12):
            if scene % 5 == 1 and frame % 5 == 4:
                data += bytes([16 + scene % 8])
            elif scene % 5 == 2 and frame % 5 == 4:
                data += bytes([frame % 8]) + some(5)
            elif scene % 5 == 3 and frame % 5 == 4:
                data += bytes([8]) + some(1)
            else:
                failing = scene % 5 == 4 and frame % 5 == 4
                data += bytes([(240 if failing else 64) + count])
                for number in range(count):
                    if frame % 3 == 2:
                        data += bytes([128 + 2 * number + frame % 2, number, frame % 4])
                    else:
                        data += bytes([20, (number * 30 + 2 * frame) % 256, (number * 11 + frame) % 256, 0x77, 50])
                data += some(3 if failing else 1)
        yield data[:192]
    for _ in range(20):
        yield some(192)


def detections():
    moving = "".join(
        f"{frame},-1,{100 + 5 * frame}.25,{40 - frame},30,60.5,0.{9 - frame % 7},{label}\n"
        for frame in range(1, 13)
        for label in (1, 2, -7)
        if (frame + label) % 5
    )
    texts = [
        "",
        "\n",
        "1,-1,10,20,30,40,0.9\n",
        "1,-1,10,20,30,40,0.9",
        "1,-1,10,20,30,40,0.9,2,-1,-1\r\n2,-1,11,20,30,40,0.9,2,-1,-1\r\n3,-1,12,20,30,40,0.8,2,-1,-1\r\n",
        "\ufeff7.0,1,1e1,2e-1,+3,.5,1e-3,+007\n\n  \t \n6 ,\t1 , 2,3, 4 ,5,6,7\n",
        "9223372036854775806,0,0,0,0,0,0,123456789012345678901234567890\n0,0,0,0,0,0,0,-0\n",
        "1,-1,1e36,0,1,1,1\n",
        "1,-1,0,0,-1,1,1\n",
        "1,-1,0,0,1,1,nan\n",
        "1,-1,0,0,1,1,inf\n",
        "1,-1,0,0,1\n",
        "1.5,-1,0,0,1,1,1\n",
        "-1,-1,0,0,1,1,1\n",
        "x,-1,0,0,1,1,1\n",
        "1,-1,0,0,1,1,1,car\n",
        "1,-1,3.4028235e38,0,1,1,3.4028236e38\n",
        "1,-1,4.9e-324,1e-46,1e-400,0x10,1\n",
        moving,
        moving.replace("\n", "\r\n"),
        "".join(reversed(moving.splitlines(keepends=True))),
    ]
    for rules in (0, 1, 2, 3, 4, 0x10, 0x20, 0x40, 0x80, 8, 0x88):
        for text in texts:
            yield bytes([rules]) + text.encode()


write("matrix", matrix())
write("tracker", tracker())
write("detections", detections())
