#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The `shim` subcommands as their user meets them.

usage: test_shim.py PROGRAM [unittest arguments]
"""
import json
import os
import pathlib
import re
import signal

import commandline
from commandline import LONG, WithInstrument, run, shown_on_terminal, start

HEADER = "# Shim file: a gradient's name and its value in units.\n"


class Gradients(WithInstrument):
    def test_list_shows_all_gradients_in_three_forms(self):
        document = self.document('shim', 'list')
        self.assertEqual(list(document), ['schema', 'system', 'file', 'gradients'])
        self.assertEqual((document['system'], document['file']), ('wmxs1a', 'wmxs1a.dat'))
        gradients = document['gradients']
        self.assertIn('(X2-Y2)', gradients)
        self.assertNotEqual(gradients['Z'], 0)  # the factory shims
        self.assertEqual([line.split() for line in self.answer('shim', 'list').splitlines()],
                         [[name, str(value)] for name, value in gradients.items()])
        self.assertEqual(self.answer('shim', 'list', '-q').split(), [str(value) for value in gradients.values()])

    def test_what_is_set_is_there_in_the_next_run(self):
        self.assertEqual(self.answer('shim', 'set', 'Z=1200', 'X=-30', '-q'), '1200\n-30\n')
        self.assertEqual(self.answer('shim', 'get', 'X', 'Z', '-q'), '-30\n1200\n')

    def test_nothing_of_a_set_is_kept_when_one_name_is_bad(self):
        before = self.document('shim', 'list')
        self.assert_refused(1, "There is no TOSK gradient named 'Nope'", 'shim', 'set', 'Z=1', 'Nope=3', 'X=5')
        self.assertEqual(self.document('shim', 'list'), before)

    def test_nothing_of_a_set_is_kept_when_a_current_would_be_too_large(self):
        before = self.document('shim', 'list')
        self.assert_refused(1, 'units must be between', 'shim', 'set', 'X=5', 'Z=2000000000')
        self.assertEqual(self.document('shim', 'list'), before)

    def test_a_gradient_that_the_system_has_not_is_told_of(self):
        self.assertNotIn('Z8', self.document('shim', 'list')['gradients'])
        self.answer('shim', 'set', 'Z=5', 'Z8=7',
                    messages="fieldwarden: shim system wmxs1a has no gradient 'Z8': it stays 0\n")
        self.assertEqual(self.answer('shim', 'get', 'Z', 'Z8', '-q'), '5\n0\n')

    def test_a_name_given_twice_is_refused(self):
        self.assert_refused(2, "'Z' is given two values", 'shim', 'set', 'Z=1', 'Z=2')

    def test_wrong_arguments_are_refused_before_anything_is_opened(self):
        for words, arguments in (("'Z' is not of the form NAME=VALUE", ['set', 'Z']),
                                 ("'Z=1.5' is not of the form", ['set', 'Z=1.5']),
                                 ("'Z=2147483648' is not of the form", ['set', 'Z=2147483648']),
                                 ('NAME is required', ['get']), ('ASSIGNMENT is required', ['set']),
                                 ("no subcommand 'fly'", ['fly']), ('subcommand', []),
                                 ('--json excludes --quiet', ['list', '--json', '-q']),
                                 ('not in range 8 to 11', ['list', '--system', '12'])):
            with self.subTest(arguments):
                self.assert_refused(2, words, 'shim', *arguments)
        self.assertFalse(self.data.exists())

    def test_an_unknown_gradient_is_shown_without_its_control_characters(self):
        self.assertIn(r"'\x1b[31mA'", self.assert_refused(1, 'no TOSK gradient', 'shim', 'get', '\x1b[31mA'))


class Currents(WithInstrument):
    def test_a_current_is_set_in_any_unit_and_kept(self):
        self.assertEqual(self.answer('shim', 'current', '3', '-250mA'), 'current 3: -0.250000 A\n')
        self.assertEqual(self.answer('shim', 'current', '3', '-q'), '-0.250000\n')
        self.assertEqual(self.document('shim', 'current', '3'), {'schema': 1, 'index': 3, 'ampere': -0.25})
        self.assertEqual(self.answer('shim', 'current', '33', '-0.125', '-q'), '-0.125000\n')

    def test_a_current_out_of_range_changes_nothing(self):
        self.answer('shim', 'current', '3', '0.25')
        before = self.answer('shim', 'current', '3')
        for value in ('1.5', '-1001mA', '1000001uA'):
            self.assert_refused(1, 'Shim current value must be between -1 and 1 Ampere', 'shim', 'current', '3', value)
        self.assertEqual(self.answer('shim', 'current', '3'), before)

    def test_wrong_indexes_and_values_are_refused(self):
        for index in ('34', '-1', '1.5', 'Z'):
            self.assert_refused(2, index, 'shim', 'current', index)
        for value in ('nan', '1V', 'much'):
            self.assert_refused(2, f"'{value}' is not a current", 'shim', 'current', '3', value)


class Files(WithInstrument):
    def file(self, content):
        path = self.folder / 'shims'
        path.write_bytes(content)
        return str(path)

    def test_what_is_saved_can_be_loaded(self):
        saved = str(self.folder / 'saved')
        self.answer('shim', 'set', 'Z=1200', '(X2-Y2)=-77')
        before = self.document('shim', 'list')
        count = len(before['gradients'])
        self.assertEqual(self.answer('shim', 'save', saved), f"{count} gradients saved in '{saved}'\n")
        text = pathlib.Path(saved).read_text()
        self.assertTrue(text.startswith(HEADER))
        self.assertIn('\n(X2-Y2) -77\n', text)
        self.answer('shim', 'set', 'Z=0', 'X=999')
        self.assertEqual(self.document('shim', 'load', saved), before)
        self.assertEqual(self.document('shim', 'save', saved), {'schema': 1, 'file': saved, 'gradients': count})
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ['instrument', 'saved'])

    def test_gradients_that_the_file_does_not_name_become_zero(self):
        path = self.file(b'# only Z\n\nZ 5\r\nZ 1200 of a name given twice the last line holds')
        gradients = self.document('shim', 'load', path)['gradients']
        self.assertEqual(gradients.pop('Z'), 1200)
        self.assertEqual(set(gradients.values()), {0})

    def test_an_empty_file_is_loaded_with_a_word_on_what_that_means(self):
        path = self.file(b'')
        gradients = self.answer('shim', 'load', path, '-q',
                                messages=f"fieldwarden: '{path}' names no gradient: all of them become 0\n")
        self.assertEqual(set(gradients.split()), {'0'})

    def test_nothing_of_a_bad_file_is_kept(self):
        before = self.document('shim', 'list')
        for content, words in ((b'Z 5\nX five\n', "line 2: 'five' is not a whole number of 32 bits"),
                               (b'Z 5\nNope 5\n', "line 2: There is no TOSK gradient named 'Nope'"),
                               (b'Z 5\n\tX 5\n', r"line 2: There is no TOSK gradient named '\x09X'"),
                               (b'Z 5\nX\n', 'line 2: no space found after gradient name'),
                               (b'X 5\nZ 2000000000\n', 'units must be between'),
                               (b'\x7fELF\0\0\0', 'is no shim file: it is not text'),
                               (b'#' * (1 << 20) + b'\n', 'is no shim file: it has more than 1 MiB')):
            with self.subTest(words):
                self.assert_refused(1, words, 'shim', 'load', self.file(content))
        for path, words in ((self.folder, 'Is a directory'), (self.folder / 'none', 'No such file or directory'),
                            ('/dev/zero', 'it has more than 1 MiB')):
            with self.subTest(words):
                self.assert_refused(1, words, 'shim', 'load', str(path))
        self.assertEqual(self.document('shim', 'list'), before)

    def test_a_file_that_cannot_be_written_is_an_error_that_names_it(self):
        self.assert_refused(1, 'No such file or directory', 'shim', 'save', str(self.folder / 'none/shims'))
        self.assert_refused(1, 'Is a directory', 'shim', 'save', str(self.folder))

    def test_a_shim_file_goes_through_pipes(self):
        saved = self.answer('shim', 'save', '/dev/stdout', '-q')
        self.assertTrue(saved.startswith(HEADER))
        code, out, err = run(*self.here('shim', 'load', '/dev/stdin', '--json'), stdin=self.pipe(saved))
        self.assertEqual((code, err), (0, ''))
        self.assertEqual(json.loads(out), self.document('shim', 'list'))

    def pipe(self, text):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        with os.fdopen(writer, 'w') as stream:
            stream.write(text)
        return reader


class Systems(WithInstrument):
    def test_the_chosen_system_holds_for_later_runs(self):
        self.assertEqual(self.answer('shim', 'system', '11'), 'shim system 11: wmxs2a, matrix file wmxs2a.dat\n')
        self.assertEqual(self.document('shim', 'list')['system'], 'wmxs2a')
        self.assertEqual(self.document('shim', 'system', '9'),
                         {'schema': 1, 'number': 9, 'system': 'wmxs1b', 'file': 'wmxs1b.dat'})
        self.assertEqual(self.answer('shim', 'system', '10', '-q'), 'wmxs1c\n')

    def test_a_system_for_one_run_is_not_kept(self):
        self.assertEqual(self.document('shim', 'list', '--system', '11')['system'], 'wmxs2a')
        self.assertEqual(self.document('shim', 'list')['system'], 'wmxs1a')

    def test_currents_stay_and_gradients_follow_when_the_system_changes(self):
        self.answer('shim', 'set', 'Z=1200')
        current = self.answer('shim', 'current', '0')
        gradients = self.document('shim', 'list')['gradients']
        self.answer('shim', 'system', '11')
        self.assertEqual(self.answer('shim', 'current', '0'), current)
        self.assertNotEqual(self.document('shim', 'list')['gradients'], gradients)

    def test_relations_are_those_of_the_system(self):
        first = self.document('shim', 'relations')
        self.assertEqual(list(first), ['schema', 'system', 'relations'])
        self.assertRegex(first['relations'], re.compile(r'^F 1 1 ', re.MULTILINE))
        self.assertEqual(self.answer('shim', 'relations'), first['relations'])
        self.assertNotEqual(self.document('shim', 'relations', '--system', '11')['relations'], first['relations'])

    def test_wrong_systems_are_refused(self):
        for system in ('7', '12', 'wmxs1a'):
            self.assert_refused(2, system, 'shim', 'system', system)

    def test_a_throw_away_instrument_keeps_nothing(self):
        self.assertEqual(run('shim', 'set', 'Z=1', '--simulate', '-q'), (0, '1\n', ''))
        self.assertNotEqual(run('shim', 'get', 'Z', '--simulate', '-q'), (0, '1\n', ''))


class Manners(WithInstrument):
    def test_one_folder_serves_one_instrument_at_a_time(self):
        process = start(*self.here('run', '--json'))
        try:
            commandline.lines_until(process, lambda line: '"opened"' in line)
            self.assert_refused(2, 'another fieldwarden has its simulated instrument in', 'shim', 'get', 'Z')
        finally:
            process.terminate()
            process.communicate(timeout=LONG)
        self.answer('shim', 'get', 'Z')

    def test_a_ctrl_c_waits_for_the_end_of_the_set(self):
        process = start(*self.here('shim', 'set', 'Z=77', '-q'))
        while not (self.data / 'var/log/libFieldwarden.log').exists():  # The library is about to open.
            self.assertIsNone(process.poll())
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=LONG)
        self.assertEqual((process.returncode, out), (0, '77\n'), err)
        self.assertIn('Ctrl-C, closing; what was asked for is done', err)
        self.assertEqual(self.answer('shim', 'get', 'Z', '-q'), '77\n')

    def test_a_reader_that_has_gone_is_no_error_and_a_full_disk_is_one(self):
        reader, writer = os.pipe()
        os.close(reader)
        code, _, err = run(*self.here('shim', 'list'), stdout=writer)
        os.close(writer)
        self.assertEqual((code, err), (0, ''))
        with open('/dev/full', 'w') as full:
            code, _, err = run(*self.here('shim', 'list'), stdout=full)
        self.assertEqual(code, 1)
        self.assertIn('Cannot write to standard output: No space left on device', err)

    def test_a_terminal_gets_the_same_text_without_colour(self):
        shown = shown_on_terminal(*self.here('shim', 'get', 'Z', '-q'))
        self.assertRegex(shown, rb'^-?\d+\r\n$')

    def test_help_fits_a_terminal_and_tells_of_throw_away_instruments(self):
        for command in (['shim'], *(['shim', name] for name in
                                    ('list', 'get', 'set', 'current', 'load', 'save', 'relations', 'system'))):
            code, out, err = run(*command, '--help')
            self.assertEqual((code, err), (0, ''))
            self.assertIn('fieldwarden ' + ' '.join(command), out)
            self.assertIn('is gone when it ends', ' '.join(out.split()))
            self.assertLessEqual(max(map(len, out.splitlines())), 80)

    def test_without_an_instrument_the_library_says_what_is_missing(self):
        code, out, err = run('shim', 'list', '--lock', 'mock', '--data', str(self.folder))
        self.assertEqual((code, out), (1, ''))
        self.assertIn("CAN interface 'can0'", err)


if __name__ == '__main__':
    commandline.main()
