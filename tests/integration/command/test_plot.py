#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`plot`: pictures of dumps that HDF5's own tools have made.

usage: test_plot.py PROGRAM [unittest arguments]
"""
import array
import cmath
import json
import math
import os
import pathlib
import random
import struct
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

import commandline
from commandline import run

POINTS_PER_SECOND = 68571428 / 2048
CONFIGURATION = """PATH {path}
INPUT-CLASS IN
INPUT-SIZE 32
RANK 1
DIMENSION-SIZES {size}
OUTPUT-CLASS IN
OUTPUT-SIZE 32
"""


class Plots(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def dump(self, name, points):
        """Writes complex points as the library's dumps have them."""
        arguments = ['h5import']
        for path, values in (('Real', [point.real for point in points]), ('Imag', [point.imag for point in points])):
            (self.folder / path).write_bytes(array.array('i', [round(value) for value in values]).tobytes())
            (self.folder / (path + '.conf')).write_text(CONFIGURATION.format(path=path, size=len(points)))
            arguments += [path, '-c', path + '.conf']
        subprocess.run([*arguments, '-o', name], cwd=self.folder, check=True, stdout=subprocess.DEVNULL)
        return self.folder / name

    def fid(self, name='lock_fid_1.h5', points=4096):
        noise = random.Random(1)
        return self.dump(name, [1e5 * cmath.exp(2j * cmath.pi * 300 * t / POINTS_PER_SECOND - t / 1500)
                                + complex(noise.gauss(0, 1e3), noise.gauss(0, 1e3)) for t in range(points)])

    def fft(self, name='lock_fft_1.h5', points=65536, peak=-1000):
        """A line at so many points from 0 Hz, in the order of an FFT."""
        spectrum = [2e6 / complex(1, k if k < points // 2 else k - points) for k in range(points)]
        return self.dump(name, spectrum[-peak:] + spectrum[:-peak] if peak < 0 else spectrum)

    def plot(self, *arguments):
        code, out, err = run('plot', *map(str, arguments))
        self.assertEqual((code, err), (0, ''))
        return out

    def assert_refused(self, exit_code, words, *arguments, **options):
        before = sorted(os.listdir(self.folder))
        code, out, err = run('plot', *map(str, arguments), **options)
        self.assertEqual((code, out), (exit_code, ''), err)
        self.assertIn(words, err)
        self.assertEqual(sorted(os.listdir(self.folder)), before)

    def assert_png(self, path):
        head = path.read_bytes()[:24]
        self.assertEqual(head[:8], b'\x89PNG\r\n\x1a\n')
        self.assertEqual(struct.unpack('>II', head[16:]), (1600, 1020))

    def assert_svg(self, path, *words):
        """The picture is well formed, has a line a curve, and these words."""
        root = xml.etree.ElementTree.parse(path).getroot()
        self.assertTrue(root.tag.endswith('svg'))
        shown = {''.join(element.itertext()).strip() for element in root.iter('{http://www.w3.org/2000/svg}text')}
        for word in words:
            self.assertIn(word, shown)

    def test_a_png_stands_beside_the_dump(self):
        dump = self.fid()
        picture = self.folder / 'lock_fid_1.png'
        self.assertRegex(self.plot(dump), rf'^{picture}: 4096 points, largest magnitude \S+ at 0\.0\d+ s\n$')
        self.assert_png(picture)

    def test_an_svg_has_axes_with_units_and_all_three_curves(self):
        picture = self.folder / 'picture.svg'
        self.assertEqual(self.plot(self.fid(), '--out', picture, '-q'), f'{picture}\n')
        self.assert_svg(picture, 'lock_fid_1.h5 (FID of 4096 points)', 'Time [s]', 'Signal [counts]',
                        'Magnitude [counts]', 'real', 'imaginary', 'magnitude')
        self.plot(self.fft(), '--out', picture)
        self.assert_svg(picture, 'lock_fft_1.h5 (FFT of 65536 points)', 'Frequency [Hz]', '-15000', '15000')

    def test_the_summary_tells_where_the_peak_is(self):
        document = json.loads(self.plot(self.fft(peak=-1000), '--json'))
        self.assertEqual(list(document), ['schema', 'file', 'kind', 'points', 'peakHertz', 'peakMagnitude'])
        self.assertEqual((document['schema'], document['file'], document['kind'], document['points']),
                         (1, str(self.folder / 'lock_fft_1.png'), 'fft', 65536))
        self.assertAlmostEqual(document['peakHertz'], -1000 * POINTS_PER_SECOND / 65536, 6)  # -510.90 Hz
        self.assertEqual(document['peakMagnitude'], 2e6)
        document = json.loads(self.plot(self.dump('lock_fid_2.h5', [1, 3 + 4j, 2]), '--json'))
        self.assertEqual((document['kind'], document['points'], document['peakMagnitude']), ('fid', 3, 5.0))
        self.assertTrue(math.isclose(document['peakSeconds'], 1 / POINTS_PER_SECOND))

    def test_an_option_tells_what_the_name_does_not(self):
        dump = self.fid('any.h5')
        self.assert_refused(2, 'say --fid or --fft', dump)
        self.assertEqual(json.loads(self.plot(dump, '--fft', '--json'))['kind'], 'fft')
        self.assertEqual(json.loads(self.plot(dump, '--fid', '--json'))['kind'], 'fid')
        self.assert_refused(2, '--fid excludes --fft', dump, '--fid', '--fft')

    def test_the_smallest_and_a_flat_dump_are_drawn(self):
        for name, points in (('lock_fid_a.h5', [0]), ('lock_fft_a.h5', [7]), ('lock_fft_b.h5', [0] * 5000)):
            self.plot(self.dump(name, points))
            self.assert_png((self.folder / name).with_suffix('.png'))

    def test_names_are_taken_to_the_letter(self):
        dump = self.fid("lock_fid_it's 100 %_{x}^2 <&> $(ls)`ls`.h5")
        self.plot(dump)
        self.assert_png(dump.with_suffix('.png'))
        picture = self.folder / "it's; $(touch x) \"y\".svg"
        self.plot(dump, '--out', picture)
        self.assert_svg(picture, f'{dump.name} (FID of 4096 points)')

    def test_a_picture_is_replaced_as_a_whole_or_not_at_all(self):
        dump = self.fid()
        picture = self.folder / 'lock_fid_1.png'
        picture.write_text('old')
        self.assert_refused(1, "there is no 'gnuplot'", dump, env={'PATH': '/nowhere'})
        self.assertEqual(picture.read_text(), 'old')
        self.plot(dump)
        self.assert_png(picture)

    def test_refusals(self):
        dump = self.fid()
        self.assert_refused(1, f"Cannot read a lock signal from '{dump}x': No such file or directory", f'{dump}x')
        self.assert_refused(1, 'It is not a file', self.folder, '--fid')
        text = self.folder / 'lock_fid_text.h5'
        text.write_text('no dump')
        self.assert_refused(1, 'It is not an HDF5 file', text)
        self.assert_refused(2, 'must end in .png or .svg', dump, '--out', self.folder / 'picture.gif')
        self.assert_refused(2, 'would replace the dump', dump, '--out', dump)
        self.assert_refused(1, f"Cannot write the picture '{self.folder}/none/a.png': No such file or directory",
                            dump, '--out', self.folder / 'none/a.png')
        self.assert_refused(2, 'FILE is required')

    def test_a_full_disk_is_an_error(self):
        with open('/dev/full', 'w') as full:
            code, _, err = run('plot', str(self.fid()), stdout=full)
        self.assertEqual(code, 1)
        self.assertIn('Cannot write to standard output', err)


if __name__ == '__main__':
    commandline.main()
