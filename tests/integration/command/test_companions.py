#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What goes with the command: man pages and completions know the subcommands and options that it has.

usage: test_companions.py PROGRAM PACKAGING_FOLDER [unittest arguments]
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import commandline
from commandline import run

PACKAGING = None
SHIM = ('list', 'get', 'set', 'current', 'load', 'save', 'relations', 'system')
COMMANDS = [['run'], ['registers'], ['dump'], ['lock', 'scan'], *(['shim', name] for name in SHIM), ['at', 'exchange'],
            ['at', 'flows'], ['log', 'list'], ['log', 'show'], ['log', 'plot'], ['plot'], ['temperature']]


def options_of(*command):
    """The long options that --help shows."""
    code, out, err = run(*command, '--help')
    assert (code, err) == (0, ''), err
    return set(re.findall(r'^  (?:-\w,)?(--[a-z-]+)', out, re.MULTILINE))


class ManPages(unittest.TestCase):
    def pages(self):
        pages = sorted((PACKAGING / 'man').glob('*.1'), key=lambda page: page.stem)
        self.assertEqual([page.stem for page in pages],
                         ['fieldwarden', 'fieldwarden-at', 'fieldwarden-dump', 'fieldwarden-lock', 'fieldwarden-log',
                          'fieldwarden-plot', 'fieldwarden-registers', 'fieldwarden-run', 'fieldwarden-shim',
                          'fieldwarden-temperature'])
        return pages

    def test_they_tell_of_every_option(self):
        pages = {page.stem: page.read_text() for page in self.pages()}
        for command in COMMANDS:
            for option in options_of(*command):
                with self.subTest(command=command, option=option):
                    self.assertIn('-' + option[2:], re.findall(r'Fl (?:\w , )?(-[a-z-]+)',
                                                               pages['fieldwarden-' + command[0]]))

    def test_they_tell_of_every_subcommand(self):
        for command in COMMANDS:
            page = (PACKAGING / 'man' / f'fieldwarden-{command[0]}.1').read_text()
            self.assertIn('.Nm fieldwarden ' + ' '.join(command), page)

    def test_the_main_page_leads_to_every_subcommand(self):
        page = (PACKAGING / 'man/fieldwarden.1').read_text()
        synopsis = page.split('.Sh SYNOPSIS')[1].split('.Sh ')[0]
        description = page.split('.Sh DESCRIPTION')[1].split('.Sh ')[0]
        see_also = page.split('.Sh SEE ALSO')[1]
        names = {command[0] for command in COMMANDS}
        self.assertEqual(set(re.search(r'^\.Cm (.*)$', synopsis, re.MULTILINE)[1].split(' | ')), names)
        self.assertEqual(set(re.findall(r'^\.It Cm (\S+)$', description, re.MULTILINE)), names)
        self.assertEqual(re.findall(r'^\.Xr fieldwarden-(\S+) 1', see_also, re.MULTILINE), sorted(names))

    @unittest.skipUnless(shutil.which('man'), 'there is no man')
    def test_they_are_formatted_without_warnings(self):
        for page in self.pages():
            shown = subprocess.run(['man', '--warnings', '-l', page], capture_output=True, text=True, check=True,
                                   env={'PATH': '/usr/bin:/bin', 'MANWIDTH': '80', 'LC_ALL': 'C.UTF-8'})
            self.assertEqual(shown.stderr, '')
            self.assertIn('EXIT STATUS', shown.stdout)


class Completions:
    """What holds for every shell."""

    def test_subcommands(self):
        self.assertEqual(self.offered('fieldwarden', ''),
                         {'run', 'registers', 'dump', 'lock', 'shim', 'at', 'log', 'plot', 'temperature'})
        self.assertEqual(self.offered('fieldwarden', 'shim', ''), set(SHIM))
        self.assertEqual(self.offered('fieldwarden', 'shim', 's'), {'set', 'save', 'system'})
        self.assertEqual(self.offered('fieldwarden', 'log', ''), {'list', 'show', 'plot'})
        self.assertEqual(self.offered('fieldwarden', 'dump', ''), {'fid', 'fft', 'canopen'})

    def test_options_are_those_of_the_help(self):
        for command in COMMANDS:
            with self.subTest(command):
                self.assertEqual(self.offered('fieldwarden', *command, '--'), options_of(*command))

    def test_an_option_before_the_word_changes_nothing(self):
        self.assertEqual(self.offered('fieldwarden', 'shim', 'get', '--data', 'log', 'Z', '--sy'), {'--system'})

    def test_a_dump_of_the_boards_starts_no_lock(self):
        self.assertEqual(self.offered('fieldwarden', 'dump', 'fft', '--freq'), {'--frequency'})
        self.assertEqual(self.offered('fieldwarden', 'dump', 'canopen', '--freq'), set())

    def test_values_of_options_and_arguments(self):
        self.assertEqual(self.offered('fieldwarden', 'run', '--lock', ''), {'mock', 'real'})
        self.assertEqual(self.offered('fieldwarden', 'shim', 'list', '--system', '1'), {'10', '11'})
        self.assertEqual(self.offered('fieldwarden', 'shim', 'system', '1'), {'10', '11'})
        self.assertEqual(self.offered('fieldwarden', 'log', 'show', '--since', ''), set())

    def test_files_and_folders(self):
        (self.folder / 'shims.txt').touch()
        (self.folder / 'sub').mkdir()
        self.assertEqual(self.offered('fieldwarden', 'shim', 'load', 's'), {'shims.txt', 'sub'})
        self.assertEqual(self.offered('fieldwarden', 'run', '--data', 's'), {'sub'})
        self.assertEqual(self.offered('fieldwarden', 'dump', 'fid', 's'), {'shims.txt', 'sub'})
        self.assertEqual(self.offered('fieldwarden', 'dump', 'canopen', 's'), {'sub'})
        self.assertEqual(self.offered('fieldwarden', 'plot', 's'), {'shims.txt', 'sub'})
        self.assertEqual(self.offered('fieldwarden', 'plot', 'a.h5', '--out', 'sh'), {'shims.txt'})

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def script(self, shell, script, *words):
        """Runs a script of the shell in the test's folder; gives the lines that it prints."""
        done = subprocess.run([shell, '-c', script, *words], capture_output=True, text=True, cwd=self.folder)
        self.assertEqual((done.returncode, done.stderr), (0, ''))
        return done.stdout.splitlines()


class Bash(Completions, unittest.TestCase):
    def offered(self, *words):
        """What Tab offers behind the words, of which the last is being typed."""
        file = PACKAGING / 'completions/fieldwarden.bash'
        script = f'''set -u; source "{file}"
                     complete -p fieldwarden >/dev/null || exit 1
                     COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _fieldwarden
                     ((${{#COMPREPLY[@]}})) && printf '%s\\n' "${{COMPREPLY[@]}}"; exit 0'''
        return {word for word in self.script('bash', script, 'bash', *words)
                if not (word.startswith('--') and words[-1] == '')}


@unittest.skipUnless(shutil.which('fish'), 'there is no fish')
class Fish(Completions, unittest.TestCase):
    def offered(self, *words):
        file = PACKAGING / 'completions/fieldwarden.fish'
        # Only our own completions and folder; fish ends a folder with "/" and a description follows a tab.
        script = f'source "{file}"; complete -C "{" ".join(words)}"'
        found = {line.split('\t')[0].rstrip('/') for line in self.script('fish', script)}
        return {word for word in found if re.match(r'^--|^[^-]', word)}


if __name__ == '__main__':
    PACKAGING = pathlib.Path(sys.argv.pop(2))
    commandline.main()
