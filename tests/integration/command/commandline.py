# SPDX-License-Identifier: Apache-2.0
"""What the tests of the command share: starting it, reading it, and a terminal of its own.

A test ends with `commandline.main()`; its first argument is the program.
"""
import json
import os
import pathlib
import pty
import select
import subprocess
import sys
import tempfile
import unittest

PROGRAM = None
MOCK = pathlib.Path('/tmp/lockmock')
LONG = 60  # seconds that nothing here needs, but a slow machine might


def main():
    """Takes the program from the arguments and runs the tests of the main module."""
    global PROGRAM
    PROGRAM = sys.argv.pop(1)
    unittest.main(module='__main__', verbosity=2)


def start(*arguments, **options):
    options = {'stdout': subprocess.PIPE, 'stderr': subprocess.PIPE, 'text': True, **options}
    return subprocess.Popen([PROGRAM, *arguments], **options)


def run(*arguments, **options):
    """Runs to the end: exit code, standard output, standard error."""
    process = start(*arguments, **options)
    out, err = process.communicate(timeout=LONG)
    return process.returncode, out, err


def lines_until(process, wanted):
    """Reads standard output up to the first line that `wanted` takes; gives that line."""
    for line in process.stdout:
        if wanted(line):
            return line
    raise AssertionError('the output ended first: ' + process.stderr.read())


def shown_on_terminal(*arguments, environment=()):
    """What the program writes to standard output when that is a terminal."""
    leader, follower = pty.openpty()
    process = start(*arguments, stdout=follower, env={**os.environ, **dict(environment)})
    os.close(follower)
    shown = b''
    while select.select([leader], [], [], LONG)[0]:
        try:
            piece = os.read(leader, 4096)
        except OSError:  # the terminal has lost its last writer
            break
        if not piece:
            break
        shown += piece
    os.close(leader)
    process.communicate(timeout=LONG)
    return shown


class WithInstrument(unittest.TestCase):
    """Tests on a simulated instrument whose folder goes with the test."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.data = self.folder / 'instrument'

    def here(self, *arguments):
        return [*arguments, '--simulate', '--data', str(self.data)]

    def answer(self, *arguments, messages=''):
        """Standard output of a call that must go well."""
        code, out, err = run(*self.here(*arguments))
        self.assertEqual((code, err), (0, messages))
        return out

    def document(self, *arguments):
        """The one JSON document of a call that must go well."""
        document = json.loads(self.answer(*arguments, '--json'))
        self.assertEqual(document['schema'], 1)
        return document

    def assert_refused(self, exit_code, words, *arguments):
        """A call that must end with a code and words, and nothing on standard output; gives its messages."""
        code, out, err = run(*self.here(*arguments))
        self.assertEqual((code, out), (exit_code, ''), err)
        self.assertIn(words, err)
        self.assertEqual(exit_code == 2 and 'usage: ' in err, 'usage: fieldwarden ' in err)
        return err
