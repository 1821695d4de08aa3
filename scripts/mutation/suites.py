"""The test programs of a mutated copy: what their cases reach, and whether they notice a mutant."""

import collections
import json
import mmap
import os
import resource
import shutil
import signal
import subprocess
import tempfile
import threading
import time

MEMORY = 3 << 30     # of one process; a mutant may ask for more and more
FILE_SIZE = 1 << 30  # of one file, as on the disk so in memory


def limits():
    resource.setrlimit(resource.RLIMIT_DATA, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE, FILE_SIZE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Case:
    """One case of a test program, or a program that has none."""

    def __init__(self, name, command, program):
        self.name, self.command, self.program = name, command, program
        self.filter = next((a.split("=", 1)[1] for a in command if a.startswith("--gtest_filter=")), None)
        self.seconds = 0.0
        self.places = frozenset()


class Suites:
    def __init__(self, build, work):
        # Files in memory: waiting for a disk is most of what the tests do.
        self.work = tempfile.mkdtemp(prefix="zefs-mutants-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        self.build = build
        self.local = threading.local()
        self.cases = []
        told = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, check=True,
                              capture_output=True, text=True).stdout
        for test in json.loads(told)["tests"]:
            command = test.get("command", [])
            if not command or not os.path.realpath(command[0]).startswith(os.path.realpath(build) + os.sep):
                continue  # a script, or a program that was not built
            if os.path.exists(command[0]):
                self.cases.append(Case(test["name"], command, command[0]))
        self.cases_of = collections.defaultdict(list)
        for case in self.cases:
            self.cases_of[case.program].append(case)

    def close(self):
        shutil.rmtree(self.work, ignore_errors=True)

    def run(self, command, limit, mutant=None, reached=None):
        """Exit code of a command, 'timeout' if it takes longer, and its seconds. Leaves nothing behind."""
        place = tempfile.mkdtemp(dir=self.work)
        env = dict(os.environ, TMPDIR=place, GTEST_FAIL_FAST="1", GTEST_BRIEF="1", ZEFS_TEST_SEED="1")
        if mutant is not None:
            env["ZEFS_MUTANT"] = str(mutant)
        if reached is not None:
            env["ZEFS_MUTANTS_REACHED"] = reached
        begin = time.monotonic()
        process = subprocess.Popen(command, cwd=place, env=env, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   start_new_session=True, preexec_fn=limits)
        try:
            code = process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            code = "timeout"
        try:
            os.killpg(process.pid, signal.SIGKILL)  # children of a test that has died
        except ProcessLookupError:
            pass
        process.wait()
        shutil.rmtree(place, ignore_errors=True)
        return code, time.monotonic() - begin

    def reach(self, case, places):
        """Runs a case without a mutant: whether it passes; notes its time and the places it reaches."""
        handle, name = tempfile.mkstemp(dir=self.work)
        os.ftruncate(handle, places + 1)
        code, case.seconds = self.run(case.command, 300, reached=name)
        with mmap.mmap(handle, 0) as reached:
            case.places = frozenset(i for i, byte in enumerate(reached[:]) if byte)
        os.close(handle)
        os.remove(name)
        return code == 0

    def command_of(self, program, cases):
        if cases[0].filter is None:
            return cases[0].command
        if len(cases) == len(self.cases_of[program]):
            return [program]
        return [program, "--gtest_filter=" + ":".join(case.filter for case in cases)]

    def noticed(self, mutant, first, by_program):
        """The first thing that notices `mutant`: (how, program). `first`: cases to try ahead."""
        for case in first:
            code, _ = self.run(case.command, 5 + 5 * case.seconds, mutant)
            if code != 0:
                return ("timeout" if code == "timeout" else "killed"), case.name
        for program, cases in sorted(by_program.items(), key=lambda kv: sum(c.seconds for c in kv[1])):
            code, _ = self.run(self.command_of(program, cases), 5 + 5 * sum(c.seconds for c in cases), mutant)
            if code != 0:
                return ("timeout" if code == "timeout" else "killed"), os.path.basename(program)
        return "survived", ""
