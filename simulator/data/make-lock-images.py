#!/usr/bin/env python3
"""Makes the two images that the simulated lock sequencer runs on: its program and its window.

usage: make-lock-images.py [--check] [FOLDER]

Writes memory.bin and window.bin into FOLDER (default: the folder "lock" beside this script). With --check it writes
nothing and exits 1 when a file in FOLDER differs by a byte from what it would write.

The program, memory.bin
-----------------------
32-bit words, little endian. Word 0 is the version word: 0x5153 above the version of the instruction set, 1. The
further words are instructions, each at the address of its place: op code in the upper 8 bits, operand in the lower 24.

    op  name        operand     what the sequencer does
     1  idle        points      waits for so many points (68571428 Hz / 2048)
     2  excite                  sends the transmitter's pulse: the FID begins
     3  acquire     points      takes so many points; 0: as many as data/fft_zeros leaves of 65536
     4  transform               transforms them, finds the greatest slice, announces the end of the FID
     5  regulate                takes one step of FRED and PID
     6  stream                  feeds the streams, where the sequencer controls them
     7  jump        address     goes on there
     8  halt                    rests until it is started again

The sequencer begins at address 1. It checks an image when it is loaded: another version word is error 1, an op code
that the table does not have error 2, a jump out of the image error 3; an image above 4096 words does not fit.

The window, window.bin
----------------------
1007 coefficients of 16 bits, unsigned, little endian, 32768 being 1: for each point of the acquisition a factor, here
the first quarter of a cosine, which takes the end of the FID to zero without a step. It widens the line a little and
takes away the ripples that the break at the end would make of it.
"""
import math
import pathlib
import struct
import sys

VERSION_WORD = 0x51530001
OPS = {'idle': 1, 'excite': 2, 'acquire': 3, 'transform': 4, 'regulate': 5, 'stream': 6, 'jump': 7, 'halt': 8}
CYCLE = [('excite', 0), ('acquire', 0), ('transform', 0), ('regulate', 0), ('stream', 0), ('jump', 1)]

POINTS = 65536 - 64529
WINDOW_ONE = 32768


def program():
    words = [VERSION_WORD] + [OPS[name] << 24 | operand for name, operand in CYCLE]
    return struct.pack(f'<{len(words)}I', *words)


def window():
    factors = (math.cos(math.pi / 2 * n / POINTS) for n in range(POINTS))
    return struct.pack(f'<{POINTS}H', *(round(WINDOW_ONE * factor) for factor in factors))


IMAGES = {'memory.bin': program, 'window.bin': window}


def main(arguments):
    check = '--check' in arguments
    folders = [argument for argument in arguments if not argument.startswith('-')]
    if len(folders) > 1 or len(arguments) != len(folders) + int(check):
        sys.exit(__doc__.split('\n\n')[1])
    folder = pathlib.Path(folders[0]) if folders else pathlib.Path(__file__).resolve().parent / 'lock'
    differing = 0
    for name, make in IMAGES.items():
        path, image = folder / name, make()
        if not check:
            folder.mkdir(exist_ok=True)
            path.write_bytes(image)
        elif not path.is_file() or path.read_bytes() != image:
            print(f'{path} is not what {pathlib.Path(__file__).name} makes', file=sys.stderr)
            differing = 1
    return differing


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
