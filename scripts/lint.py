#!/usr/bin/env python3
"""Format, clang warnings and the short clang-tidy list, over what changed since it last passed.

  scripts/lint.py BUILD_DIRECTORY

Product files go through clang-tidy (which also raises clang's own warnings), tests through clang's warnings alone. A
file is looked at again when it, a project header that it includes, its compile command or the lint's settings changed.
"""
import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
INCLUDE = re.compile(rb'^\s*#\s*include\s*"([^"]+)"', re.M)
ROOTS = ["libs/qvc/src", "libs/mpl/src", "libs/platform/src", "libs/halvix/src", "."]
_hashes = {}


def closure_hash(path, seen):
    """Hash of a file and of every project header below it."""
    if path in seen:
        return b""
    seen.add(path)
    if path not in _hashes:
        with open(path, "rb") as file:
            text = file.read()
        found = []
        for name in INCLUDE.findall(text):
            name = name.decode()
            for root in [os.path.dirname(path)] + [os.path.join(ROOT, r) for r in ROOTS]:
                candidate = os.path.normpath(os.path.join(root, name))
                if os.path.isfile(candidate):
                    found.append(candidate)
                    break
        _hashes[path] = (hashlib.sha256(text).digest(), found)
    own, headers = _hashes[path]
    return own + b"".join(closure_hash(header, seen) for header in headers)


def compile_arguments(entry):
    arguments = shlex.split(entry["command"])
    while arguments and not arguments[0].endswith(("++", "g++-12")):
        arguments.pop(0)
    skip = {"-c", "-o", entry["file"]}
    result, it = [], iter(arguments[1:])
    for argument in it:
        if argument == "-o":
            next(it)
        elif argument not in skip and not argument.startswith("-fsanitize"):
            result.append(argument)
    return result


def check(entry):
    path = entry["file"]
    arguments = compile_arguments(entry)
    relative = os.path.relpath(path, ROOT)
    if relative.startswith(("libs/", "TolvaneDownloader/", "apps/")):
        command = ["clang-tidy", "--quiet", "--warnings-as-errors=*", path, "--"] + arguments
    else:
        command = ["clang++", "-fsyntax-only"] + arguments + [path]
    run = subprocess.run(command, cwd=entry["directory"], capture_output=True, text=True)
    return relative, run.returncode, run.stdout + run.stderr


def main(build):
    tracked = [os.path.join(folder, name) for top in ("libs", "TolvaneDownloader", "apps", "tests", "benchmarks", "fuzz",
                                                      "examples")
               for folder, _, files in os.walk(os.path.join(ROOT, top)) for name in files if name.endswith((".h", ".cpp"))]
    run = subprocess.run(["clang-format", "--dry-run", "-Werror"] + tracked, cwd=ROOT, capture_output=True, text=True)
    if run.returncode != 0:
        print("\n".join(run.stderr.splitlines()[:20]))
        print("lint: run clang-format -i on the files above")
        return 1

    with open(os.path.join(build, "compile_commands.json")) as file:
        entries = [entry for entry in json.load(file) if entry["file"].startswith(ROOT + "/")]
    with open(os.path.join(ROOT, ".clang-tidy"), "rb") as file:
        settings = hashlib.sha256(file.read() + open(os.path.abspath(__file__), "rb").read()).digest()
    cache_path = os.path.join(build, "lint.json")
    cache = {}
    if os.path.exists(cache_path):
        with open(cache_path) as file:
            cache = json.load(file)

    def key(entry):
        return hashlib.sha256(settings + closure_hash(entry["file"], set()) +
                              " ".join(compile_arguments(entry)).encode()).hexdigest()

    keys = {entry["file"]: key(entry) for entry in entries}
    todo = [entry for entry in entries if cache.get(entry["file"]) != keys[entry["file"]]]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
        futures = {pool.submit(check, entry): entry for entry in todo}
        for future in concurrent.futures.as_completed(futures):
            relative, status, output = future.result()
            if status == 0:
                cache[futures[future]["file"]] = keys[futures[future]["file"]]
            else:
                failed += 1
                print(f"lint: {relative}\n{output}")
    with open(cache_path, "w") as file:
        json.dump({path: value for path, value in cache.items() if path in keys}, file)
    print(f"lint: {len(todo)} of {len(entries)} files looked at, {failed} with findings")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
