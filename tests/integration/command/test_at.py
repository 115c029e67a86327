#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Temperatures and the adjustable temperature as the user of the command meets them, on the simulated instrument.

usage: test_at.py PROGRAM [unittest arguments]
"""
import json
import signal
import subprocess
import unittest

import commandline
from commandline import WithInstrument, lines_until, run, shown_on_terminal, start

commandline.LONG = 240  # Ramps take their time.
# The mock lock asks nothing of the machine, so that time may run faster than with the simulated sequencer.
MOCK = ('--simulate', '--lock', 'mock', '--time-scale', '40')
REAL = ('--simulate', '--time-scale', '10')
FLOW_CONTROLLER = '<group name="FlowController"><value>1</value><value>1</value></group>'  # on the port expander


def events_of(text):
    return [json.loads(line) for line in text.splitlines()]


def told(events, name, source='probe'):
    """The numbers that the events of a name carry, in their order."""
    return [event[name] for event in events if (event['source'], event['event']) == (source, name)]


class Run(unittest.TestCase):
    def test_it_goes_up_is_stable_and_comes_down(self):
        code, out, err = run('run', *MOCK, '--at', '310', '--until-stable', '--json')
        self.assertEqual(code, 0, err)
        events = events_of(out)
        self.assertEqual(told(events, 'status'), [1, 0])
        self.assertEqual(told(events, 'control'), [1, 2, 1, 0])
        self.assertIn(2, told(events, 'stability'))
        ramp = [event['kelvin'] for event in events if event['event'] == 'ramp']
        self.assertGreater(len(ramp), 8)  # A line a kelvin or a little more, over 12 K.
        self.assertGreater(max(ramp), 308)
        self.assertEqual([phase['phase'] for phase in events[-1]['phases']],
                         ['opening', 'lock start', 'gas', 'ramp', 'settling', 'held', 'down and off', 'close'])
        self.assertIn('bringing the probe down before closing', err)

    def test_it_waits_for_the_lock(self):
        code, out, err = run('run', *REAL, '--at', '299', '--until-stable', '--json')
        self.assertEqual(code, 0, err)
        events = events_of(out)
        names = [(event['source'], event['event'], event.get('state', event.get('status'))) for event in events]
        self.assertLess(names.index(('lock', 'state', 1)), names.index(('probe', 'status', 1)))
        self.assertEqual(told(events, 'status'), [1, 0])

    def test_ctrl_c_brings_the_probe_down_before_it_closes(self):
        process = start('run', *MOCK, '--at', '300', '--json')
        lines_until(process, lambda line: '"ramp"' in line)
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=commandline.LONG)
        self.assertEqual(process.returncode, 0, err)
        self.assertEqual(told(events_of(out), 'status')[-1], 0)
        self.assertIn('Ctrl-C, bringing the probe down before closing', err)

    def test_ctrl_c_before_it_was_stable_is_no_success_of_until_stable(self):
        process = start('run', *MOCK, '--at', '300', '--until-stable', '--json')
        lines_until(process, lambda line: '"ramp"' in line)
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=commandline.LONG)
        self.assertEqual(process.returncode, 4)

    def test_the_end_of_its_time_before_it_was_stable_is_told_by_the_exit_code(self):
        code, out, err = run('run', *MOCK, '--at', '340', '--until-stable', '--for', '2', '--json')
        self.assertEqual(code, 3, err)

    def test_without_a_target_temperatures_and_readiness_are_shown(self):
        code, out, err = run('run', *MOCK, '--for', '1')
        self.assertEqual(code, 0, err)
        self.assertRegex(out, r'magnet +\d{3}\.\d{3} K, shim coil \d+\.\d{3} C, iso box \d{3}\.\d\d K, probe')
        self.assertRegex(out, r'magnet +(not ready, \d\.\d\d K (above|below) its target|ready within \d+ min)')
        self.assertNotIn('phase', out)

    def test_a_table_tells_where_the_time_went(self):
        code, out, err = run('run', *MOCK, '--at', '299', '--until-stable')
        self.assertEqual(code, 0, err)
        self.assertRegex(out, r'\nphase +real +instrument\nopening +[\d.]+ s +[\d.]+ s\n')
        self.assertRegex(out, r'\nall +[\d.]+ s +[\d.]+ s\n$')

    def test_wrong_targets_are_refused_with_what_to_do(self):
        for arguments, words in ((('--at', 'warm'), "'warm' is not a temperature, as in 310, 310K or 36.85C"),
                                 (('--at', '400'), "outside of the probe's range, 298.15 K to 353.15 K"),
                                 (('--at', '200K'), "outside of the probe's range"),
                                 (('--until-stable',), '--at')):
            with self.subTest(arguments):
                code, _, err = run('run', *MOCK, *arguments)
                self.assertEqual(code, 2)
                self.assertIn(words, err)
        code, _, err = run('run', '--cold')
        self.assertEqual(code, 2)
        self.assertIn('--cold goes with --simulate', err)


class Flows(WithInstrument):
    def test_as_a_table_as_values_and_as_json(self):
        mock = ('--lock', 'mock')
        self.assertEqual(self.answer('at', 'flows', *mock).splitlines()[:3],
                         ['index  flow [l/h]', '    0           0', '    1         200'])
        self.assertEqual(self.answer('at', 'flows', '-q', *mock), '0\n200\n300\n400\n')
        self.assertEqual(self.document('at', 'flows', *mock), {'schema': 1, 'literPerHour': [0, 200, 300, 400]})

    def test_without_the_option_there_are_none(self):
        self.answer('at', 'flows', '-q', '--lock', 'mock')
        (self.data / 'data/deviceids/vtu.mds').write_text('no record')
        for command in (('at', 'flows'), ('at', 'exchange', '--wait', '0')):
            self.assert_refused(1, 'no adjustable temperature option', *command, '--lock', 'mock')
        code, _, err = run(*self.here('run', '--at', '310', '--lock', 'mock'))
        self.assertEqual(code, 2)
        self.assertIn('run it without --at', err)


class Exchange(WithInstrument):
    QUICK = ('--lock', 'mock', '--time-scale', '10')

    def test_a_prototype_is_refused_in_the_librarys_words(self):
        self.answer('at', 'flows', '-q', '--lock', 'mock')
        record = self.data / 'data/deviceids/vtu.mds'
        self.assertIn(FLOW_CONTROLLER, record.read_text())
        record.write_text(record.read_text().replace(FLOW_CONTROLLER, ''))
        self.assert_refused(1, 'not supported on this system', 'at', 'exchange', '--wait', '0', *self.QUICK)

    def test_it_takes_the_gas_down_and_brings_it_back(self):
        document = self.document('at', 'exchange', '--wait', '0', *self.QUICK)
        self.assertEqual(list(document), ['schema', 'sampleInMagnet', 'preparedSeconds', 'completedSeconds'])
        self.assertTrue(document['sampleInMagnet'])
        self.assertFalse(self.document('at', 'exchange', '--wait', '0', '--no-sample', *self.QUICK)['sampleInMagnet'])

    def test_it_waits_for_enter(self):
        process = start(*self.here('at', 'exchange', *self.QUICK), stdin=subprocess.PIPE)
        line = lines_until(process, lambda line: 'exchange the sample' in line)
        self.assertIn('then press Enter', line)
        self.assertIsNone(process.poll())
        out, err = process.communicate('\n', timeout=commandline.LONG)
        self.assertEqual((process.returncode, err), (0, ''))
        self.assertIn('the exchange is done', out)

    def test_ctrl_c_completes_the_exchange(self):
        process = start(*self.here('at', 'exchange', *self.QUICK), stdin=subprocess.PIPE)
        lines_until(process, lambda line: 'exchange the sample' in line)
        process.send_signal(signal.SIGINT)
        self.assertIn('Ctrl-C, completing the exchange', process.stderr.readline())  # with its input still open
        out, err = process.communicate(timeout=commandline.LONG)
        self.assertEqual((process.returncode, err), (0, ''))
        self.assertIn('the exchange is done', out)


class Terminal(unittest.TestCase):
    def test_events_on_standard_output_are_the_same_without_a_line_below(self):
        # Standard error is no terminal here, so nothing is drawn anew.
        shown = shown_on_terminal('run', *MOCK, '--for', '1')
        self.assertIn(b'iso box', shown)
        self.assertNotIn(b'\r\x1b[K', shown)


if __name__ == '__main__':
    commandline.main()
