#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command as its user meets it: on a terminal, through a pipe, with wrong input, and with Ctrl-C.

usage: test_command.py PROGRAM [unittest arguments]
"""
import json
import os
import pathlib
import signal
import tempfile
import time
import unittest

import commandline
from commandline import LONG, MOCK, lines_until, run, shown_on_terminal, start


class WithoutMockDirectory(unittest.TestCase):
    def setUp(self):
        if MOCK.exists():
            self.fail(f'{MOCK} is in the way of these tests; remove it first')


class Arguments(WithoutMockDirectory):
    def assert_refused(self, arguments, words):
        code, out, err = run(*arguments)
        self.assertEqual(code, 2, err)
        self.assertEqual(out, '')
        self.assertIn(words, err)
        return err

    def test_version_and_help_go_to_standard_output(self):
        code, out, err = run('--version')
        self.assertEqual((code, err), (0, ''))
        self.assertRegex(out, r'^fieldwarden \d+\.\d+\.\d+\n$')
        for arguments in (['--help'], ['run', '--help']):
            code, out, err = run(*arguments)
            self.assertEqual((code, err), (0, ''))
            self.assertIn('--help', out)

    def test_wrong_arguments_end_with_the_reason_and_the_usage(self):
        for arguments, words in ((['fly'], 'fly'), ([], 'subcommand'), (['run', '--time-scale', '0'], '--time-scale'),
                                 (['run', '--for', 'soon'], 'soon'), (['run', '--for', '-1'], '--for'),
                                 (['run', '--lock', 'none'], "'none' is none of mock, real"), (['run', '--lock', '0'], "'0' is none of"),
                                 (['run', '--for', 'nan'], "'nan' is no number from 0"),
                                 (['run', '--for', '1e300'], "'1e300' is no number from 0"),
                                 (['at', 'exchange', '--wait', 'nan'], "'nan' is no number from 0"),
                                 (['run', '--time-scale', 'nan'], "'nan' is no number above 0 and at most 10000"),
                                 (['run', '--time-scale', '10001'], '--time-scale'),
                                 (['dump', 'mri', 'x.h5'], "'mri' is none of canopen, fft, fid"),
                                 (['run', '--faster'], '--faster')):
            self.assertIn('usage: fieldwarden', self.assert_refused(arguments, words))

    def test_a_time_scale_without_simulation_is_refused(self):
        self.assert_refused(['run', '--time-scale', '10', '--lock', 'mock'], '--time-scale goes with --simulate')
        self.assertFalse(MOCK.exists())

    def test_the_real_lock_is_refused_while_the_mock_directory_exists(self):
        MOCK.mkdir()
        try:
            self.assert_refused(['run', '--simulate', '--lock', 'real'], 'rm -r /tmp/lockmock')
        finally:
            MOCK.rmdir()

    def test_a_data_folder_that_cannot_be_made_is_an_error_that_names_it(self):
        with tempfile.NamedTemporaryFile() as file:
            code, out, err = run('run', '--simulate', '--lock', 'mock', '--for', '0', '--data', file.name + '/x')
            self.assertEqual(code, 1)
            self.assertIn(f"Cannot make the folder '{file.name}/x': Not a directory", err)
        self.assert_refused(['run', '--simulate', '--data', ''], '--data needs the name of a folder')


class Run(WithoutMockDirectory):
    def test_opens_and_closes_and_leaves_nothing_behind(self):
        code, out, err = run('run', '--simulate', '--lock', 'mock', '--for', '0.2')
        self.assertEqual(code, 0, err)
        self.assertIn('open on the simulated instrument, lock: mock', out)
        self.assertIn('closed', out)
        self.assertRegex(err, rf'fieldwarden: closed after \d+\.\d s, {len(out.splitlines())} events\n$')
        self.assertFalse(MOCK.exists())

    def test_a_file_takes_what_the_line_on_the_terminal_shows_too(self):
        leader, follower = os.openpty()
        with os.fdopen(leader, 'rb', buffering=0):
            process = start('run', '--simulate', '--lock', 'mock', '--for', '1.5', stderr=follower,
                            env={**os.environ, 'NO_COLOR': ''})
            os.close(follower)
            out, _ = process.communicate(timeout=LONG)  # The little that the line needs fits into the terminal.
        self.assertEqual(process.returncode, 0)
        self.assertRegex(out, r'magnet +\d{3}\.\d{3} K, shim coil ')

    def test_shows_a_warning_within_two_seconds(self):
        process = start('run', '--simulate', '--lock', 'mock', '--json')
        lines_until(process, lambda line: '"opened"' in line)
        written = time.monotonic()
        (MOCK / 'warnings').write_text('magnet too warm\n')
        event = json.loads(lines_until(process, lambda line: 'warningsChanged' in line))
        self.assertLess(time.monotonic() - written, 2.0)
        self.assertEqual(event['source'], 'lock')
        self.assertEqual(event['schema'], 1)
        self.assertEqual(event['warnings'], 'magnet too warm\n')
        self.assertEqual(event['criticalWarnings'], '')
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=LONG)
        self.assertEqual(process.returncode, 0)
        self.assertIn('Ctrl-C, closing', err)
        self.assertEqual(json.loads(out.splitlines()[-1])['event'], 'closed')
        self.assertFalse(MOCK.exists())

    def test_closes_in_order_on_sigterm(self):
        process = start('run', '--simulate', '--lock', 'mock')
        lines_until(process, lambda line: 'open on' in line)
        process.terminate()
        out, err = process.communicate(timeout=LONG)
        self.assertEqual(process.returncode, 0)
        self.assertIn('SIGTERM, closing', err)
        self.assertIn('closed', out)

    def test_closes_in_order_when_the_reader_of_its_output_goes(self):
        process = start('run', '--simulate', '--lock', 'mock', '--json')
        lines_until(process, lambda line: '"opened"' in line)
        process.stdout.close()
        (MOCK / 'warnings').write_text('unread')
        self.assertEqual(process.wait(LONG), 0)
        process.stderr.close()
        self.assertFalse(MOCK.exists())

    def test_uses_a_mock_directory_that_is_there_and_leaves_it(self):
        MOCK.mkdir()
        (MOCK / 'critical_warnings').write_text('quench')
        try:
            code, out, err = run('run', '--simulate', '--lock', 'mock', '--json', '--for', '2.5')
            self.assertEqual(code, 0, err)
            warned = [json.loads(line) for line in out.splitlines() if 'warningsChanged' in line]
            self.assertEqual([event['criticalWarnings'] for event in warned], ['quench'])
            self.assertTrue((MOCK / 'critical_warnings').exists())
        finally:
            (MOCK / 'critical_warnings').unlink()
            MOCK.rmdir()

    def test_keeps_what_somebody_else_put_into_the_mock_directory(self):
        process = start('run', '--simulate', '--lock', 'mock')
        lines_until(process, lambda line: 'open on' in line)
        (MOCK / 'notes').write_text('mine')
        process.terminate()
        process.communicate(timeout=LONG)
        try:
            self.assertEqual([path.name for path in MOCK.iterdir()], ['notes'])
        finally:
            (MOCK / 'notes').unlink(missing_ok=True)
            MOCK.rmdir()

    def test_keeps_its_files_in_the_data_folder(self):
        with tempfile.TemporaryDirectory() as folder:
            code, out, err = run('run', '--simulate', '--lock', 'mock', '--for', '0', '--data', folder)
            self.assertEqual(code, 0, err)
            root = pathlib.Path(folder)
            self.assertTrue((root / 'data/deviceids/magnet.mds').is_file())
            self.assertIn('actually closed', (root / 'var/log/libFieldwarden.log').read_text())
            self.assertIn('MOCK', (root / 'data/logs/libFieldwarden.nvlog').read_text())

    def test_a_damaged_log_of_the_data_logger_is_told_once(self):
        with tempfile.TemporaryDirectory() as folder:
            process = start('run', '--simulate', '--lock', 'mock', '--json', '--for', '4', '--data', folder)
            lines_until(process, lambda line: '"opened"' in line)
            file, = pathlib.Path(folder).glob('**/datalogger.sqlite')
            for each in file.parent.glob('datalogger.sqlite*'):
                each.unlink()  # The library goes on with the files that it has open.
            file.write_text('This is no database, but a text that somebody has put into its place. ' * 99)
            _, err = process.communicate(timeout=LONG)
            self.assertEqual(process.returncode, 0, err)
            self.assertEqual(err.count('the H0 output cannot be shown: '), 1, err)
            self.assertIn('datalogger.sqlite', err)

    def test_a_library_error_ends_with_its_words(self):
        # The real instrument is not here: no CAN interface.
        code, out, err = run('run', '--lock', 'mock')
        self.assertEqual((code, out), (1, ''))
        self.assertIn("CAN interface 'can0'", err)
        self.assertFalse(MOCK.exists())


class Signals(WithoutMockDirectory):
    """Where nothing is said while the work goes on, a signal comes as the library opens."""

    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.temporary = self.folder / 'tmp'
        self.temporary.mkdir()

    def assert_closed_by(self, number, words, *arguments):
        process = start(*arguments, '--simulate', env={**os.environ, 'TMPDIR': str(self.temporary)})
        while not list(self.temporary.glob('fieldwarden-*/var/log/libFieldwarden.log')):
            self.assertIsNone(process.poll())
        process.send_signal(number)
        out, err = process.communicate(timeout=LONG)
        self.assertEqual((process.returncode, out), (4, ''), err)
        self.assertEqual(err.splitlines()[-1], f'fieldwarden: {words}, closed')
        self.assertEqual(list(self.temporary.iterdir()), [])
        self.assertFalse(MOCK.exists())

    def test_registers_closes_in_order_on_ctrl_c(self):
        self.assert_closed_by(signal.SIGINT, 'Ctrl-C', 'registers')

    def test_temperature_closes_in_order_on_sigterm(self):
        self.assert_closed_by(signal.SIGTERM, 'SIGTERM', 'temperature', '--lock', 'mock')

    def test_at_flows_closes_in_order_on_ctrl_c(self):
        self.assert_closed_by(signal.SIGINT, 'Ctrl-C', 'at', 'flows', '--lock', 'mock')

    def test_dump_canopen_closes_in_order_on_sigterm_and_writes_nothing(self):
        dumps = self.folder / 'dumps'
        self.assert_closed_by(signal.SIGTERM, 'SIGTERM', 'dump', 'canopen', str(dumps), '--lock', 'mock')
        self.assertEqual(list(dumps.iterdir()), [])

    def test_the_end_of_the_terminal_closes_in_order_but_not_under_nohup(self):
        self.assert_closed_by(signal.SIGHUP, 'SIGHUP', 'temperature', '--lock', 'mock')
        process = start('run', '--simulate', '--lock', 'mock', '--json', '--for', '1.5',
                        preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        lines_until(process, lambda line: '"opened"' in line)
        process.send_signal(signal.SIGHUP)
        _, err = process.communicate(timeout=LONG)
        self.assertEqual(process.returncode, 0)
        self.assertNotIn('SIGHUP', err)

    def test_a_start_of_the_lock_ends_on_ctrl_c_and_nothing_is_kept(self):
        file = self.folder / 'x.h5'
        self.assert_closed_by(signal.SIGINT, 'Ctrl-C', 'dump', 'fid', str(file))
        self.assertFalse(file.exists())


class Terminal(WithoutMockDirectory):
    def test_colours_on_a_terminal_only_and_never_with_no_color(self):
        command = ('run', '--simulate', '--lock', 'mock', '--for', '0.2')
        self.assertIn(b'\x1b[', shown_on_terminal(*command, environment={'NO_COLOR': ''}))
        self.assertNotIn(b'\x1b[', shown_on_terminal(*command, environment={'NO_COLOR': '1'}))
        self.assertNotIn('\x1b[', run(*command)[1])


if __name__ == '__main__':
    commandline.main()
