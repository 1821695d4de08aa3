"""The mutated copy of the project, in build/mutants: src (sources), build, and what is known of it."""

import json
import os
import re
import shutil
import subprocess
import sys

import rewrite

FOLDERS = ("support", "table", "sidefiles", "persistent")
HERE = os.path.dirname(os.path.abspath(__file__))
# The test programs that are built: the library's own, and, if asked for, the reference host's, without
# those that reach the library only through programs of their own.
OWN = re.compile(r"(tests/(support|table|sidefiles|persistent|system)/.*_test|fuzz/\w+_fuzz)$")
OTHERS = re.compile(r"tests/refhost/.*(?<!_command)(?<!_commands)_test$")


class Copy:
    def __init__(self, root, out, all_suites=False):
        self.root, self.out, self.all_suites = root, out, all_suites
        self.src, self.build = os.path.join(out, "src"), os.path.join(out, "build")
        os.makedirs(out, exist_ok=True)
        self.dropped_file = os.path.join(out, "dropped.json")
        self.mutants = []
        self.dropped = {}
        if os.path.exists(self.dropped_file):
            with open(self.dropped_file) as file:
                self.dropped = {k: set(v) for k, v in json.load(file).items()}

    def name_of(self, path):
        name = os.path.relpath(os.path.realpath(path), self.root)
        return name if name.split(os.sep)[0] in FOLDERS else None

    def find(self):
        """Parses the library; {name: File}."""
        units = []
        for folder in FOLDERS:
            for name in sorted(os.listdir(os.path.join(self.root, folder))):
                if name.endswith(".cc"):
                    units.append((os.path.join(self.root, folder, name),
                                  ["-std=c++17", "-I" + self.root]))
        self.files = rewrite.walk(units, self.name_of, self.dropped)
        self.mutants = []  # by number; those of dropped sites too
        self.first = {}
        for name in sorted(self.files):
            self.first[name] = len(self.mutants)
            for site in self.files[name].sites:
                place = len(self.mutants)
                for mutant in site.mutants:
                    mutant.place = place
                    mutant.dropped = mutant.dropped or site.dropped
                    self.mutants.append(mutant)
        return self.mutants

    def write(self):
        """Writes the copy; files that are as they were stay untouched, so that a build is short."""
        listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=self.root,
                                check=True, capture_output=True, text=True).stdout.split("\0")
        kept = set()
        for name in filter(None, listed):
            path = os.path.join(self.root, name)
            if not os.path.isfile(path):
                continue
            with open(path, "rb") as file:
                data = file.read()
            if name in self.files:
                data = self.files[name].rewritten(self.first[name]).encode()
            if name == "CMakeLists.txt":
                data += b"target_sources(zefs_extmap_objects PRIVATE zefs_mutants/runtime.cc)\n"
            self.put(name, data, os.stat(path).st_mode)
            kept.add(name)
        for name in ("runtime.h", "runtime.cc"):
            with open(os.path.join(HERE, name), "rb") as file:
                data = file.read()
            if name == "runtime.cc":
                data = f"#define ZEFS_MUTANTS_COUNT {len(self.mutants) + 1}\n".encode() + data
            self.put("zefs_mutants/" + name, data, 0o644)
            kept.add("zefs_mutants/" + name)
        for folder, _, names in os.walk(self.src):
            for name in names:
                path = os.path.join(folder, name)
                if os.path.relpath(path, self.src) not in kept:
                    os.remove(path)

    def put(self, name, data, mode):
        path = os.path.join(self.src, name)
        if os.path.exists(path):
            with open(path, "rb") as file:
                if file.read() == data:
                    return
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(data)
        os.chmod(path, mode & 0o777)

    def configure(self):
        if os.path.exists(os.path.join(self.build, "build.ninja")):
            return
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        include = os.path.join(self.src, "zefs_mutants", "runtime.h")
        subprocess.run(["cmake", "-S", self.src, "-B", self.build, "-G", "Ninja",
                        "-DCMAKE_BUILD_TYPE=None", "-DZEFS_BUILD_BENCH=OFF",
                        f"-DCMAKE_CXX_FLAGS=-O1 -w -include {include}", *launcher],
                       check=True, stdout=subprocess.DEVNULL)

    def ninja(self, *arguments):
        done = subprocess.run(["ninja", "-C", self.build, "-k", "0", *arguments],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        with open(os.path.join(self.out, "build.log"), "w") as log:
            log.write(done.stdout)
        return done.returncode, done.stdout

    def test_targets(self):
        _, told = self.ninja("-t", "targets", "all")
        names = re.findall(r"^(\S+): CXX_EXECUTABLE_LINKER", told, re.M)
        return [n for n in names if OWN.search(n) or self.all_suites and OTHERS.search(n)]

    def make(self, jobs):
        """Builds the copy. What does not compile is dropped, line by line."""
        for attempt in range(8):
            if attempt or not self.mutants:
                self.find()
            self.write()
            self.configure()
            code, told = self.ninja(f"-j{jobs}", "zefs_extmap_objects")
            if code == 0:
                code, told = self.ninja(f"-j{jobs}", *self.test_targets())
            if code == 0:
                return
            errors = re.findall(r"^\S*?mutants/src/(\S+?):(\d+):\d+: error:", told, re.M)
            errors = {(name, int(line)) for name, line in errors if name in self.files}
            new = {e for e in errors if e[1] not in self.dropped.get(e[0], ())}
            if not new:
                sys.exit(f"scripts/mutants: the copy does not build, see {self.out}/build.log")
            for name, line in new:
                self.dropped.setdefault(name, set()).add(line)
            print("does not compile, left out: " +
                  ", ".join(f"{n}:{l}" for n, l in sorted(new)), flush=True)
            with open(self.dropped_file, "w") as file:
                json.dump({k: sorted(v) for k, v in self.dropped.items()}, file)
        sys.exit(f"scripts/mutants: the copy does not build, see {self.out}/build.log")
