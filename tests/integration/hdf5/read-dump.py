#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Prints what h5py makes of a dump: layout and values of both parts.
import sys

import h5py

with h5py.File(sys.argv[1], "r") as dump:
    print("datasets", *sorted(dump.keys()))
    for name in ("Real", "Imag"):
        part = dump[name]
        print(name, part.shape[0], part.dtype, part.chunks[0], part.compression, part.compression_opts)
        print(*part[:])
