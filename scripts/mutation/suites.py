"""The test programs of a mutated copy: what their cases reach, and whether they notice a mutant."""

import collections
import json
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time

MEMORY = 3 << 30     # of one process; a mutant may ask for more and more
FILE_SIZE = 4 << 30  # of one file, as on the disk so in memory


def limits(seconds):
    resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds))
    resource.setrlimit(resource.RLIMIT_DATA, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE, FILE_SIZE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def time_limit(cases):
    """Seconds of a processor that are long for these cases in one program: whatever else the machine
    has to do. The times of many cases contain as many starts."""
    return int(3 + (4 if len(cases) == 1 else 1.5) * sum(case.seconds for case in cases))


class Case:
    """One case of a test program, or a program that has none."""

    def __init__(self, name, command, program):
        self.name, self.command, self.program = name, command, program
        self.filter = next((a.split("=", 1)[1] for a in command if a.startswith("--gtest_filter=")), None)
        self.seconds = 0.0
        self.places = frozenset()


class Suites:
    def __init__(self, build):
        # Files in memory: waiting for a disk is most of what the tests do.
        memory = "/dev/shm" if os.path.isdir("/dev/shm") else None
        self.work = tempfile.mkdtemp(prefix="zefs-mutants-", dir=memory)
        self.build = build
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
        """Exit code of a command, 'hang' if it takes more of a processor's seconds than `limit`, or
        waits for long; its seconds; and the case that it was in. Leaves nothing behind."""
        place = tempfile.mkdtemp(dir=self.work)
        env = dict(os.environ, TMPDIR=place, GTEST_FAIL_FAST="1", ZEFS_TEST_SEED="1")
        if mutant is not None:
            env["ZEFS_MUTANT"] = str(mutant)
        if reached is not None:
            env["ZEFS_MUTANTS_REACHED"] = reached
        begin = time.monotonic()
        with open(os.path.join(place, "told"), "wb") as told:
            process = subprocess.Popen(command, cwd=place, env=env, stdin=subprocess.DEVNULL, stdout=told,
                                       stderr=subprocess.DEVNULL, start_new_session=True,
                                       preexec_fn=lambda: limits(limit))
        try:
            code = process.wait(timeout=30 + 10 * limit)
        except subprocess.TimeoutExpired:
            code = "hang"
        if code in (-signal.SIGXCPU, -signal.SIGKILL):
            code = "hang"
        try:
            os.killpg(process.pid, signal.SIGKILL)  # children of a test that has died
        except ProcessLookupError:
            pass
        process.wait()
        seconds = time.monotonic() - begin
        with open(told.name, "rb") as told:
            told.seek(max(0, os.path.getsize(told.name) - 65536))
            cases = re.findall(rb"\[ RUN      \] (\S+)", told.read())
        shutil.rmtree(place, ignore_errors=True)
        return code, seconds, cases[-1].decode() if cases else ""

    def reach(self, case, places):
        """Runs a case without a mutant: whether it passes; notes its time and the places it reaches."""
        handle, name = tempfile.mkstemp(dir=self.work)
        os.ftruncate(handle, places + 1)
        code, case.seconds, _ = self.run(case.command, 300, reached=name)
        with open(name, "rb") as reached:
            case.places = frozenset(i for i, byte in enumerate(reached.read()) if byte)
        os.close(handle)
        os.remove(name)
        return code == 0

    def command_of(self, program, cases):
        wanted = ":".join(case.filter or "" for case in cases)
        if cases[0].filter is None:
            return cases[0].command
        if len(cases) == len(self.cases_of[program]) or len(wanted) > 100000:
            return [program]
        return [program, "--gtest_filter=" + wanted]

    def notice(self, mutant, first, cases):
        """What becomes of a mutant: (verdict, the case that notices it). `first`: cases to try ahead."""
        def verdict(code):
            return "hang" if code == "hang" else "killed"

        for case in first:
            code, _, _ = self.run(case.command, time_limit([case]), mutant)
            if code != 0:
                return verdict(code), case
        by_program = collections.defaultdict(list)
        for case in cases:
            if case not in first:
                by_program[case.program].append(case)
        for program, some in sorted(by_program.items(), key=lambda kv: sum(c.seconds for c in kv[1])):
            code, _, name = self.run(self.command_of(program, some), time_limit(some), mutant)
            if code != 0:
                return verdict(code), next((c for c in some if c.filter == name), some[0])
        return "survived", None
