#!/usr/bin/env python3
"""Makes the firmware of the simulated shim boards: the compressed image and the "build.info" beside it.

usage: make-firmware.py [--check] [--build ID] [--version TEXT] [FOLDER]

Writes Q47_Shim_CAN_update.bin.gz and build.info into FOLDER (default: the folder of this script). With --check it
writes nothing and exits 1 when a file in FOLDER does not say what it would write.

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
import gzip
import hashlib
import pathlib
import struct
import sys
import zlib

PLATFORM = 'Q47-SHIM'
BUILD_ID = 1042
VERSION = '1.0.42'
IMAGE = 'Q47_Shim_CAN_update.bin.gz'
INFO = 'build.info'
BLOCKS = 384


def program(build_id):
    blocks = (hashlib.sha256(struct.pack('<II', build_id, number)).digest() for number in range(BLOCKS))
    return b''.join(block * 2 for block in blocks)


def image(build_id, version):
    body = program(build_id)
    texts = struct.pack('<16s16s', PLATFORM.encode(), version.encode())
    checked = struct.pack('<II', 48 + len(body), build_id) + texts + body
    return b'Q47P' + struct.pack('<I', zlib.crc32(checked)) + checked


def info(build_id, version):
    return (f'# firmware of the shim boards, version {version}\n'
            f'platform={PLATFORM}\n'
            f'jenkins_build_id={build_id}\n')


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--check', action='store_true')
    parser.add_argument('--build', type=int, default=BUILD_ID, metavar='ID')
    parser.add_argument('--version', default=VERSION, metavar='TEXT')
    parser.add_argument('folder', nargs='?', type=pathlib.Path, default=pathlib.Path(__file__).parent)
    arguments = parser.parse_args()
    wanted_image = image(arguments.build, arguments.version)
    wanted_info = info(arguments.build, arguments.version)
    image_path, info_path = arguments.folder / IMAGE, arguments.folder / INFO
    if arguments.check:
        same = gzip.decompress(image_path.read_bytes()) == wanted_image and info_path.read_text() == wanted_info
        print('the firmware is what the script makes' if same else 'the firmware is not what the script makes')
        return 0 if same else 1
    arguments.folder.mkdir(parents=True, exist_ok=True)
    image_path.write_bytes(gzip.compress(wanted_image, mtime=0))
    info_path.write_text(wanted_info)
    print(f'{len(wanted_image)} bytes, CRC-32 0x{zlib.crc32(wanted_image[8:]):08X}')
    return 0


if __name__ == '__main__':
    sys.exit(main())
