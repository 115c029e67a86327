#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The `log` subcommands: what they show is what sqlite3 finds in the data logger's file.

usage: test_log.py PROGRAM [unittest arguments]
"""
import csv
import datetime
import io
import json
import pathlib
import sqlite3
import xml.etree.ElementTree

import commandline
from commandline import LONG, WithInstrument, lines_until, run, start

CHANNEL = 'shimboard/8/calibration_offset'
GOOD, UNCERTAIN, OUT_OF_RANGE, BAD, LOST = range(5)
WORDS = {GOOD: 'good', UNCERTAIN: 'uncertain', OUT_OF_RANGE: 'out of range', BAD: 'bad', LOST: 'samples lost'}


def utc(microseconds):
    """A time of the file as the command shows it: to the millisecond, cut."""
    time = datetime.datetime.fromtimestamp(microseconds // 1000000, datetime.timezone.utc)
    return f'{time:%Y-%m-%dT%H:%M:%S}.{microseconds // 1000 % 1000:03}Z'


class WithLog(WithInstrument):
    def setUp(self):
        super().setUp()
        self.file = self.data / 'data/libfieldwarden/datalogger.sqlite'

    def lines(self, *arguments):
        """The JSON Lines of a channel."""
        lines = [json.loads(line) for line in self.answer('log', 'show', *arguments, '--json').splitlines()]
        self.assertEqual({line['schema'] for line in lines} - {1}, set())
        return lines

    def query(self, sql, *values):
        database = sqlite3.connect(f'file:{self.file}?mode=ro', uri=True)
        try:
            return database.execute(sql, values).fetchall()
        finally:
            database.close()


class AfterRuns(WithLog):
    """What runs of the instrument left behind."""

    def setUp(self):
        super().setUp()
        for _ in range(2):
            self.answer('shim', 'list')

    def test_list_shows_every_channel_with_its_newest_value(self):
        document = self.document('log', 'list')
        found = [(channel['channel'], channel['unit'], channel['description'], channel['count'])
                 for channel in document['channels']]
        self.assertEqual(found, self.query(
            'SELECT name, unit_text, description, (SELECT count(*) FROM sample WHERE channel = channel.id) '
            'FROM channel ORDER BY name'))
        newest = {name: (utc(time), value) for name, time, value in self.query(
            'SELECT name, max(time), value FROM sample JOIN channel ON channel = channel.id GROUP BY name')}
        self.assertIn(CHANNEL, newest)
        self.assertEqual({channel['channel']: (channel['lastTime'], channel['lastValue'])
                          for channel in document['channels'] if channel['count']}, newest)
        self.assertEqual({(channel['lastTime'], channel['lastValue'])
                          for channel in document['channels'] if not channel['count']} - {(None, None)}, set())
        names = [name for name, *_ in found]
        self.assertEqual(self.answer('log', 'list', '-q').splitlines(), names)
        self.assertEqual([line.split()[0] for line in self.answer('log', 'list').splitlines()], names)

    def test_show_gives_the_samples_of_the_file_in_all_forms(self):
        samples = self.query('SELECT time, value, status FROM sample JOIN channel ON channel = channel.id '
                             'WHERE name = ? ORDER BY time, seq', CHANNEL)
        self.assertEqual(len(samples), 2)  # one for each run
        self.assertEqual(self.lines(CHANNEL), [{'schema': 1, 't': utc(time), 'value': value, 'unit': '1',
                                                'status': WORDS[status]} for time, value, status in samples])
        rows = list(csv.reader(io.StringIO(self.answer('log', 'show', CHANNEL, '--csv'))))
        self.assertEqual(rows[0], ['time', 'value [1]', 'status'])
        self.assertEqual([(row[0], float(row[1]), row[2]) for row in rows[1:]],
                         [(utc(time), value, WORDS[status]) for time, value, status in samples])
        self.assertEqual([float(line) for line in self.answer('log', 'show', CHANNEL, '-q').splitlines()],
                         [value for _, value, _ in samples])
        self.assertEqual([line.split() for line in self.answer('log', 'show', CHANNEL).splitlines()],
                         [[utc(time), f'{value:g}'] for time, value, _ in samples])

    def test_since_leaves_out_what_is_older(self):
        first, second = self.lines(CHANNEL)
        self.assertEqual(self.lines(CHANNEL, '--since', second['t']), [second])
        self.assertEqual(self.lines(CHANNEL, '--since', '1h'), [first, second])
        self.assertEqual(self.lines(CHANNEL, '--since', '0s'), [])
        self.assertEqual(self.lines(CHANNEL, '--since', '2000-01-01'), [first, second])

    def test_plot_draws_channels_over_time(self):
        for ending, begin in (('png', b'\x89PNG'), ('svg', b'<?xml')):
            picture = self.folder / f'channels.{ending}'
            document = self.document('log', 'plot', CHANNEL, 'shimboard/9/calibration_offset', '--out', str(picture))
            times = self.query('SELECT min(time), max(time) FROM sample JOIN channel ON channel = channel.id '
                               'WHERE name IN (?, ?)', CHANNEL, 'shimboard/9/calibration_offset')[0]
            self.assertEqual(document, {'schema': 1, 'file': str(picture), 'channels': 2, 'samples': 4,
                                        'first': utc(times[0]), 'last': utc(times[1])})
            self.assertTrue(picture.read_bytes().startswith(begin))
        self.assertIn(CHANNEL, picture.read_text())

    def test_plot_has_a_panel_for_each_unit_and_leaves_out_what_has_no_samples(self):
        picture = self.folder / 'channels.svg'
        box = 'temperatureBoard/isobox/temperature_target'
        shims = 'temperatureBoard/shim/temperature/1_target'
        empty = 'sample/exchange_mode'  # Nobody has asked for an exchange.
        shown = self.answer('log', 'plot', box, empty, CHANNEL, shims, '--out', str(picture),
                            messages=f"fieldwarden: the channel '{empty}' has no samples\n")
        self.assertIn('samples of 3 channels, from ', shown)
        texts = xml.etree.ElementTree.parse(picture).iter('{http://www.w3.org/2000/svg}text')
        words = [''.join(text.itertext()).strip() for text in texts]
        for word in ('Value [K]', 'Value [1]', box, shims, CHANNEL):
            self.assertEqual(words.count(word), 1, word)
        self.assertNotIn(empty, words)

    def test_plot_says_what_it_cannot_draw(self):
        picture = str(self.folder / 'picture.png')
        for code, words, arguments in (
                (2, 'must end in .png or .svg', [CHANNEL, '--out', 'picture.txt']),
                (2, '--out is required', [CHANNEL]),
                (2, "no channel \"nope\"; 'fieldwarden log list' names the channels", ['nope', '--out', picture]),
                (2, f"'{CHANNEL}' has no samples since then", [CHANNEL, '--since', '0s', '--out', picture]),
                (1, '/nowhere/picture.png', [CHANNEL, '--out', '/nowhere/picture.png'])):
            with self.subTest(arguments):
                self.assert_refused(code, words, 'log', 'plot', *arguments)
        self.assertFalse(pathlib.Path(picture).exists())

    def test_wrong_arguments_are_refused(self):
        for words, arguments in (("no channel \"nope\"; 'fieldwarden log list' names the channels", ['show', 'nope']),
                                 ("'yesterday' is not a time", ['show', CHANNEL, '--since', 'yesterday']),
                                 ('CHANNEL is required', ['show']), ("no subcommand 'fly'", ['fly']),
                                 ('excludes', ['show', CHANNEL, '--csv', '--json']),
                                 ('excludes', ['show', CHANNEL, '--csv', '-q'])):
            with self.subTest(arguments):
                self.assert_refused(2, words, 'log', *arguments)


class Files(WithLog):
    def test_a_folder_without_a_log_is_an_error_that_names_the_file(self):
        self.assert_refused(1, str(self.file), 'log', 'list')
        self.assertFalse(self.data.exists())  # Nothing is made by looking.

    def test_the_simulated_instrument_has_to_be_named(self):
        code, out, err = run('log', 'list', '--simulate')
        self.assertEqual((code, out), (2, ''))
        self.assertIn('--data', err)

    def test_a_file_of_another_kind_is_an_error_that_names_it(self):
        self.file.parent.mkdir(parents=True)
        for content in (b'', b'no database\n' * 1000):
            self.file.write_bytes(content)
            self.assertIn(str(self.file), self.assert_refused(1, '', 'log', 'list'))

    def test_the_data_root_of_an_instrument_is_read_without_simulate(self):
        self.answer('shim', 'list')
        code, out, err = run('log', 'show', CHANNEL, '-q', '--data', str(self.data / 'data'))
        self.assertEqual((code, err), (0, ''))
        self.assertEqual(out, '129\n')


class Unusual(WithLog):
    """Samples that the instrument seldom writes, put into the file from outside."""

    def setUp(self):
        super().setUp()
        self.answer('shim', 'list')
        self.channel = 'shimboard/9/temperature/heatsink_upper'
        # 2026-11-21T14:00:00.123456Z, and on in steps of 1 s
        self.begin = 1795269600123456
        rows = [(300.25, GOOD), (None, BAD), (float('inf'), OUT_OF_RANGE), (3.0, LOST), (299.5, UNCERTAIN)]
        database = sqlite3.connect(self.file)
        with database:
            database.executemany(
                'INSERT INTO sample SELECT id, ?, 0, ?, ? FROM channel WHERE name = ?',
                [(self.begin + 1000000 * row, *values, self.channel) for row, values in enumerate(rows)])
            database.execute('UPDATE channel SET hidden = 1 WHERE name = ?', [self.channel])
        database.close()

    def test_what_is_no_number_is_null_in_json(self):
        lines = self.lines(self.channel)
        self.assertEqual([line['t'] for line in lines], [f'2026-11-21T14:00:0{second}.123Z' for second in range(5)])
        self.assertEqual([line['value'] for line in lines], [300.25, None, None, None, 299.5])
        self.assertEqual([line['status'] for line in lines],
                         ['good', 'bad', 'out of range', 'samples lost', 'uncertain'])
        self.assertEqual([line.get('lost') for line in lines], [None, None, None, 3, None])
        self.assertEqual({line['unit'] for line in lines}, {'K'})

    def test_a_gap_is_not_mistaken_for_a_value(self):
        self.assertEqual(self.answer('log', 'show', self.channel, '--csv').splitlines()[1:],
                         ['2026-11-21T14:00:00.123Z,300.25,good', '2026-11-21T14:00:01.123Z,nan,bad',
                          '2026-11-21T14:00:02.123Z,inf,out of range', '2026-11-21T14:00:03.123Z,,3 samples lost',
                          '2026-11-21T14:00:04.123Z,299.5,uncertain'])
        self.assertEqual(self.answer('log', 'show', self.channel, '-q').split(), ['300.25', 'nan', 'inf', '299.5'])
        text = self.answer('log', 'show', self.channel).splitlines()
        self.assertEqual(text[3], '2026-11-21T14:00:03.123Z  3 samples lost')
        self.assertEqual(text[4].split(), ['2026-11-21T14:00:04.123Z', '299.5', 'K', 'uncertain'])

    def test_a_service_channel_is_listed_when_asked_for(self):
        self.assertNotIn(self.channel, self.answer('log', 'list', '-q').split())
        self.assertIn(self.channel, self.answer('log', 'list', '-q', '--all').split())


class Beside(WithLog):
    def test_reads_while_the_library_writes(self):
        self.answer('shim', 'list')
        former = self.lines(CHANNEL)
        writer = start(*self.here('run', '--json'))
        try:
            lines_until(writer, lambda line: '"opened"' in line)
            lines = former
            while lines == former:  # The writer brings its samples to the file when it has time to.
                self.assertIsNone(writer.poll())
                lines = self.lines(CHANNEL)
            self.assertIn(CHANNEL, self.answer('log', 'list', '-q').split())
        finally:
            writer.terminate()
            _, err = writer.communicate(timeout=LONG)
        self.assertEqual(writer.returncode, 0, err)
        kept = self.query('SELECT time, value FROM sample JOIN channel ON channel = channel.id WHERE name = ? '
                          'ORDER BY time, seq', CHANNEL)
        self.assertEqual([(line['t'], line['value']) for line in lines], [(utc(time), value) for time, value in kept])

    def test_stops_when_the_reader_of_its_output_goes(self):
        self.answer('shim', 'list')
        database = sqlite3.connect(self.file)
        with database:
            database.executemany("INSERT INTO sample SELECT id, ?, 0, 1.5, 0 FROM channel WHERE name = ?",
                                 [(time, CHANNEL) for time in range(20000)])
        database.close()
        process = start(*self.here('log', 'show', CHANNEL, '--json'))
        self.assertEqual(json.loads(process.stdout.readline())['value'], 1.5)
        process.stdout.close()
        self.assertEqual(process.wait(LONG), 0)
        self.assertEqual(process.stderr.read(), '')
        process.stderr.close()

    def test_a_full_disk_is_an_error(self):
        self.answer('shim', 'list')
        with open('/dev/full', 'w') as full:
            code, _, err = run(*self.here('log', 'show', CHANNEL), stdout=full)
        self.assertEqual(code, 1)
        self.assertIn('No space left on device', err)


if __name__ == '__main__':
    commandline.main()
