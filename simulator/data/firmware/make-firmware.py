#!/usr/bin/env python3
"""Makes the firmware of the simulated boards: the compressed image and the "build.info" beside it.

usage: make-firmware.py [--check] [--board shim|temperature] [--build ID] [--version TEXT] [FOLDER]

Writes the board's image and build.info into FOLDER (default: the folder of this script for the shim boards,
"temperature" in it for the temperature board). With --check it writes nothing and exits 1 when a file in FOLDER does
not say what it would write.

The image
---------
One gzip file without name and time of these bytes, numbers little endian:

    offset  bytes
         0      4  the magic word "Q47P"
         4      4  CRC-32 (IEEE 802.3) of everything behind it
         8      4  length of the whole
        12      4  build id, not 0
        16     16  platform identifier, filled up with zeros
        32     16  version, filled up with zeros
        48         the program

The boards of the simulation run no machine code, so the program is noise that is the same each time: SHA-256 of the
build id and a block's number, block after block, each block twice, so that the file compresses as a program does.

A new simulated board already has the build that this script writes by default; give another one to see an update.
"""
import argparse
import collections
import gzip
import hashlib
import pathlib
import struct
import sys
import zlib

HERE = pathlib.Path(__file__).parent
Board = collections.namedtuple('Board', 'name platform build version image folder')
BOARDS = {
    'shim': Board('shim boards', 'Q47-SHIM', 1042, '1.0.42', 'Q47_Shim_CAN_update.bin.gz', HERE),
    'temperature': Board('temperature board', 'Q47-TEMP', 2017, '2.0.17', 'Q47_VT_CAN_update.bin.gz',
                         HERE / 'temperature'),
}
INFO = 'build.info'
BLOCKS = 384


def program(build_id):
    blocks = (hashlib.sha256(struct.pack('<II', build_id, number)).digest() for number in range(BLOCKS))
    return b''.join(block * 2 for block in blocks)


def image(platform, build_id, version):
    body = program(build_id)
    texts = struct.pack('<16s16s', platform.encode(), version.encode())
    checked = struct.pack('<II', 48 + len(body), build_id) + texts + body
    return b'Q47P' + struct.pack('<I', zlib.crc32(checked)) + checked


def info(board, build_id, version):
    return (f'# firmware of the {board.name}, version {version}\n'
            f'platform={board.platform}\n'
            f'jenkins_build_id={build_id}\n')


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--check', action='store_true')
    parser.add_argument('--board', choices=BOARDS, default='shim')
    parser.add_argument('--build', type=int, metavar='ID')
    parser.add_argument('--version', metavar='TEXT')
    parser.add_argument('folder', nargs='?', type=pathlib.Path)
    arguments = parser.parse_args()
    board = BOARDS[arguments.board]
    build_id, version = arguments.build or board.build, arguments.version or board.version
    folder = arguments.folder or board.folder
    wanted_image = image(board.platform, build_id, version)
    wanted_info = info(board, build_id, version)
    image_path, info_path = folder / board.image, folder / INFO
    if arguments.check:
        same = gzip.decompress(image_path.read_bytes()) == wanted_image and info_path.read_text() == wanted_info
        print('the firmware is what the script makes' if same else 'the firmware is not what the script makes')
        return 0 if same else 1
    folder.mkdir(parents=True, exist_ok=True)
    image_path.write_bytes(gzip.compress(wanted_image, mtime=0))
    info_path.write_text(wanted_info)
    print(f'{len(wanted_image)} bytes, CRC-32 0x{zlib.crc32(wanted_image[8:]):08X}')
    return 0


if __name__ == '__main__':
    sys.exit(main())
