#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`temperature` and `dump canopen`: what the boards know, read once.

usage: test_temperature.py PROGRAM [unittest arguments]
"""
import re
import unittest

import commandline
from commandline import WithInstrument

DUMPS = ['canopen_temperature.dump', 'canopen_shim_8.dump', 'canopen_shim_9.dump']


class Temperatures(WithInstrument):
    def test_all_of_them_with_their_limits(self):
        document = self.document('temperature')
        self.assertEqual(list(document), ['schema', 'magnet', 'shimCoil', 'isoBox', 'probe'])
        # A new instrument has been on its targets for long.
        self.assertAlmostEqual(document['magnet']['value'], 298.15, delta=0.01)
        self.assertAlmostEqual(document['magnet']['upper'], 298.17, places=6)
        self.assertAlmostEqual(document['shimCoil']['value'], 25.0, delta=0.01)
        self.assertAlmostEqual(document['shimCoil']['lower'], 24.98, places=6)
        self.assertAlmostEqual(document['isoBox']['upper'] - document['isoBox']['lower'], 0.6, places=6)
        self.assertIs(document['magnet']['ready'], False)
        self.assertEqual([document[name]['unit'] for name in ('magnet', 'shimCoil', 'isoBox', 'probe')],
                         ['K', '°C', 'K', 'K'])
        self.assertEqual((document['probe']['regulation'], document['probe']['gas'],
                          document['probe']['heaterWatt']), ('off', 'off', 0.0))

    def test_as_text_and_as_bare_values(self):
        text = self.answer('temperature').splitlines()
        self.assertRegex(text[0], r'^magnet +298\.1[45]\d K +wanted 298\.130 to 298\.170, not ready yet$')
        self.assertRegex(text[1], r'^shim coils +2[45]\.\d{3} °C +wanted 24\.980 to 25\.020$')
        self.assertEqual([line.split()[0] for line in text], ['magnet', 'shim', 'iso', 'probe', 'regulation', 'gas'])
        bare = self.answer('temperature', '-q').splitlines()
        self.assertEqual(len(bare), 4)
        for value in bare:
            self.assertRegex(value, r'^\d+\.\d+$')

    def test_an_instrument_without_the_option_has_no_probe(self):
        self.answer('shim', 'list')  # Makes the folder.
        (self.data / 'data/deviceids/vtu.mds').unlink()
        (self.data / 'data/deviceids/vtu.mds').mkdir()  # A file would be made anew.
        self.assertIsNone(self.document('temperature')['probe'])
        self.assertIn('no adjustable temperature', self.answer('temperature'))


class BoardDumps(WithInstrument):
    def test_are_one_file_a_board_with_a_line_an_object(self):
        folder = self.folder / 'new/dumps'
        document = self.document('dump', 'canopen', str(folder))
        self.assertEqual([dump['file'] for dump in document['dumps']], [str(folder / name) for name in DUMPS])
        for dump, objects in zip(document['dumps'], (242, 75, 75)):
            with open(dump['file'], encoding='utf-8', errors='replace') as file:
                text = file.read()
            self.assertEqual(dump['lines'], text.count('\n'))
            self.assertEqual(len(re.findall(r'^0x[0-9a-fA-F]{4}\t0x[0-9a-fA-F]{2}\t', text, re.MULTILINE)), objects)

    def test_replace_former_ones(self):
        (self.folder / DUMPS[0]).write_text('old')
        self.assertEqual(self.answer('dump', 'canopen', str(self.folder), '-q').splitlines(),
                         [str(self.folder / name) for name in DUMPS])
        self.assertNotIn('old', (self.folder / DUMPS[0]).read_text().splitlines())

    def test_wrong_arguments(self):
        (self.folder / 'file').touch()
        for words, arguments in (("cannot be the folder of the dumps", [str(self.folder / 'file')]),
                                 ('--frequency starts the lock', [str(self.folder), '--frequency', '80']),
                                 ('FILE is required', [])):
            with self.subTest(arguments):
                self.assert_refused(2, words, 'dump', 'canopen', *arguments)


if __name__ == '__main__':
    commandline.main()
