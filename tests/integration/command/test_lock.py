#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The lock as the user of the command meets it, on the simulated instrument.

usage: test_lock.py PROGRAM [unittest arguments]
"""
import json
import pathlib
import subprocess
import tempfile
import unittest

import commandline
from commandline import lines_until, run, start

FAST = ('--simulate', '--time-scale', '10')


class Run(unittest.TestCase):
    def stop(self, process):
        process.terminate()
        process.communicate(timeout=commandline.LONG)
        self.assertEqual(process.returncode, 0)

    def test_it_locks_and_tells_how_far_it_is(self):
        process = start('run', *FAST, '--json')
        steps = []
        states = []
        for line in process.stdout:
            event = json.loads(line)
            if event['event'] == 'progress':
                steps.append(event['step'])
            if event['event'] == 'state':
                states.append(event['state'])
            if event['event'] == 'h0Output':
                self.assertLess(abs(event['percent']), 50)
                break
        self.assertIn('Searching the lock signal', steps)
        self.assertIn('Measuring the slope at 0 Hz', steps)
        self.assertIn(1, states)
        self.stop(process)

    def test_it_names_the_right_frequency_when_it_was_told_a_wrong_one(self):
        process = start('run', *FAST, '--frequency', '80.423MHz')
        line = lines_until(process, lambda line: 'Please change your spectrometer frequency' in line)
        self.assertIn('to 80.123MHz and try again', line)
        self.stop(process)

    def test_a_wrong_frequency_is_wrong_usage(self):
        for text in ('fast', '80 MHz', '80.1GHz', '-80', '0', 'nan', '1e9', ''):
            with self.subTest(text):
                code, out, err = run('run', '--simulate', '--frequency', text)
                self.assertEqual((code, out), (2, ''))
                self.assertIn('80.123MHz', err)


class Registers(unittest.TestCase):
    def test_all_of_them(self):
        code, out, err = run('registers', '--simulate')
        self.assertEqual((code, err), (0, ''))
        lines = out.splitlines()
        self.assertEqual(len(lines), 78)
        self.assertRegex(lines[0], r'^irq/adc_pll_unlocked_mask +  *= [01]$')

    def test_as_json(self):
        code, out, _ = run('registers', '--simulate', '--json')
        document = json.loads(out)
        self.assertEqual((code, document['schema'], document['unreadable']), (0, 1, {}))
        self.assertEqual(len(document['registers']), 78)

    def test_the_mock_lock_has_none(self):
        code, out, err = run('registers', '--simulate', '--lock', 'mock')
        self.assertEqual((code, out), (2, ''))
        self.assertIn('--lock real', err)


class Dump(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def test_it_keeps_a_signal_that_others_can_read(self):
        for kind in ('fid', 'fft'):
            file = self.folder / (kind + '.h5')
            code, out, err = run('dump', kind, str(file), *FAST, '--json')
            self.assertEqual(code, 0, err)
            document = json.loads(out)
            self.assertEqual((document['kind'], document['bytes']), (kind, file.stat().st_size))
            shown = subprocess.run(['h5dump', '-H', file], capture_output=True, text=True, check=True).stdout
            self.assertIn('DATASET "Real"', shown)
            self.assertIn('( 65536 )', shown)

    def test_it_says_why_the_lock_did_not_start_and_keeps_nothing(self):
        file = self.folder / 'x.h5'
        code, out, err = run('dump', 'fft', str(file), *FAST, '--frequency', '80.423')
        self.assertEqual((code, out), (1, ''))
        self.assertIn('Please change your spectrometer frequency to 80.123MHz', err)
        self.assertFalse(file.exists())

    def test_a_place_that_takes_no_file_is_refused_before_the_lock_starts(self):
        for place, why in ((self.folder / 'none/x.png', 'No such file or directory'),
                           (self.folder / 'x.png/y.png', 'Not a directory'), ('', 'No such file or directory')):
            (self.folder / 'x.png').touch()
            for arguments, what in ((['dump', 'fid', str(place)], 'dump'),
                                    (['lock', 'scan', '--plot', str(place)], 'picture')):
                if place or what == 'dump':
                    with self.subTest(arguments):
                        self.assertEqual(run(*arguments, '--simulate'),
                                         (1, '', f"fieldwarden: Cannot write the {what} '{place}': {why}\n"))

    def test_wrong_arguments(self):
        for arguments in (['dump'], ['dump', 'fid'], ['dump', 'mri', 'x.h5'], ['lock'], ['lock', 'scan', '--plot', 'x.gif',
                                                                                          '--simulate']):
            with self.subTest(arguments):
                self.assertEqual(run(*arguments)[0], 2)


if __name__ == '__main__':
    commandline.main()
