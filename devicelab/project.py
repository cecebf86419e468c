#!/usr/bin/env python3
"""Parts of run.sh that need Python: converts a project's CTest list to jobs for init.cpp, and their results to a
verdict.

usage: project.py programs BUILD
       project.py jobs     WORK PROJECT SECONDS STRICT [COMMAND...]
       project.py verdict  WORK [COMMAND...]
"""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

# Supported CTest properties. Tests run one after the other in CTest's order, so many others do not matter.
HEEDED = {"DISABLED", "ENVIRONMENT", "FAIL_REGULAR_EXPRESSION", "PASS_REGULAR_EXPRESSION", "SKIP_REGULAR_EXPRESSION",
          "SKIP_RETURN_CODE", "TIMEOUT", "WILL_FAIL", "WORKING_DIRECTORY"}
UNHEEDED = {"ENVIRONMENT_MODIFICATION", "FIXTURES_REQUIRED", "REQUIRED_FILES"}
BACKTRACE_LINES = 12


def fail(text):
    sys.exit(f"device: {text}")


def is_program(path):
    """Returns True for an executable or a shared library for 64-bit Arm."""
    if path.is_symlink() or not path.is_file() or not os.access(path, os.X_OK):
        return False
    with open(path, "rb") as file:
        head = file.read(20)
    return head[:4] == b"\x7fELF" and head[16] in (2, 3) and head[18:20] == b"\xb7\x00"


def programs(build):
    paths = sorted(pathlib.Path(build).rglob("*"))
    return [path for path in paths if "CMakeFiles" not in path.parts and is_program(path)]


def find_command(build, project, command):
    """Returns a job for the program at that path in the build, or for the only program with that file name."""
    found = [path for path in (build / command[0],) if is_program(path)]
    found = found or [path for path in programs(build) if path.name == pathlib.Path(command[0]).name]
    if len(found) != 1:
        names = ", ".join(str(path.relative_to(build)) for path in found or programs(build) if ".so" not in path.name)
        fail(f"{'which' if found else 'no'} program {command[0]}? The build has {names}")
    return {"name": " ".join(command), "command": [str(found[0]), *command[1:]], "WORKING_DIRECTORY": str(project)}


def list_tests(build):
    listing = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], capture_output=True, text=True)
    if listing.returncode != 0:
        fail(f"cannot list the project's tests: {listing.stderr.strip().splitlines()[-1]}")
    jobs = []
    for test in json.loads(listing.stdout)["tests"]:
        job = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        for name in sorted(UNHEEDED & set(job)):
            print(f"device: {test['name']}: {name} is not heeded", file=sys.stderr)
        job = {name: value for name, value in job.items() if name in HEEDED}
        if job.get("DISABLED"):
            continue
        job.update(name=test["name"], command=test.get("command", []))
        if not job["command"] or not is_program(pathlib.Path(job["command"][0])):
            ran = job["command"][0] if job["command"] else "nothing"
            fail(f"{job['name']} runs {ran}, but the device has the project's own programs only")
        jobs.append(job)
    if not jobs:
        fail("the project adds no test; name a command")
    return jobs


def write_jobs(work, project, limit, strict, *command):
    build = work / "project"
    jobs = [find_command(build, project, command)] if command else list_tests(build)
    (work / "jobs.json").write_text(json.dumps(jobs))
    directories = ["project", str(project), "build", str(build)]
    strings = [str(len(directories)), *directories]
    for job in jobs:
        environment = job.get("ENVIRONMENT", []) + ([f"HOSTDEVICE_STRICT={strict}"] if strict else [])
        seconds = min(int(float(job.get("TIMEOUT", limit))) or int(limit), int(limit))
        strings += [job["name"].replace("\n", " "), job.get("WORKING_DIRECTORY", str(build)), str(seconds),
                    str(len(environment)), *environment, str(len(job["command"])), *job["command"]]
    (work / "rootfs/jobs").write_bytes(b"".join(os.fsencode(string) + b"\0" for string in strings))


def backtrace(work, number, job):
    """Writes a backtrace of all threads. Returns the file and the frames of the thread that got the signal."""
    core, file = work / "result/core" / number, work / f"result/backtrace-{number}.txt"
    if not core.exists():
        return None, []
    commands = [f"set sysroot {work}/rootfs", "set print frame-arguments scalars", f"core-file {core}",
                r"echo where it was\n", "bt", "thread apply all bt"]
    gdb = subprocess.run(["gdb-multiarch", "-batch", "-nx", job["command"][0],
                          *(word for command in commands for word in ("-ex", command))], capture_output=True, text=True)
    text = gdb.stdout.split("where it was\n")[-1]
    file.write_text(text)
    return file, [line for line in text.split("\nThread ")[0].splitlines() if line.startswith("#")][:BACKTRACE_LINES]


def judge(job, code, hung, output):
    """Judges a result like CTest. Returns a verdict and its details."""
    def matches(name):
        return any(re.search(expression, output) for expression in job.get(name, []))

    if hung:
        return "hung", "hung, killed"
    if code < 0:
        return "crashed", f"killed by signal {-code}, {signal.strsignal(-code)}"
    if code == job.get("SKIP_RETURN_CODE") or matches("SKIP_REGULAR_EXPRESSION"):
        return "skipped", ""
    if matches("FAIL_REGULAR_EXPRESSION"):
        return "failed", f"exit {code}, and printed what shows that it failed"
    if "PASS_REGULAR_EXPRESSION" in job:
        if matches("PASS_REGULAR_EXPRESSION"):
            return "passed", ""
        return "failed", f"exit {code}, and printed nothing that shows that it passed"
    return ("passed", "") if (code != 0) == job.get("WILL_FAIL", False) else ("failed", f"exit {code}")


def list_files(result):
    """Prints the files that the device sent back."""
    files = [str(path.relative_to(result)) for part in ("project", "build", "offlinelog")
             for path in sorted((result / part).rglob("*")) if path.is_file()]
    if files:
        more = f" and {len(files) - 8} more" if len(files) > 8 else ""
        print(f"device: files that came back, in {result}: {', '.join(files[:8])}{more}", file=sys.stderr)


def verdict(work, *command):
    """Prints the results and returns the exit status."""
    result = work / "result"
    jobs = json.loads((work / "jobs.json").read_text())
    words = []
    for line in (result / "results").read_text().splitlines():
        number, status, hung, seconds = line.split()
        job, output = jobs[int(number)], (result / "output" / number).read_bytes()
        code = os.waitstatus_to_exitcode(int(status))
        word, why = judge(job, code, hung == "1", output.decode(errors="replace"))
        words.append(word)
        if command:
            sys.stdout.buffer.write(output)
        else:
            print(f"{word:8}{float(seconds):8.2f} s  {job['name']}{why and ': '}{why}")
            if word not in ("passed", "skipped"):
                print("".join(f"    | {text}\n" for text in output.decode(errors="replace").splitlines()), end="")
        sys.stdout.flush()
        if word in ("crashed", "hung"):
            file, frames = backtrace(work, number, job)
            after = f" after {float(seconds):.0f} s" if word == "hung" else ""
            print(*frames, f"device: {job['name']}: {why}{after}{f'; every thread: {file}' if file else ''}", sep="\n",
                  file=sys.stderr)
    list_files(result)
    if command:
        return 124 if words == ["hung"] else code if code >= 0 else 128 - code
    passed, skipped = words.count("passed"), words.count("skipped")
    print(f"{passed} passed, {len(words) - passed - skipped} failed{f', {skipped} skipped' if skipped else ''}")
    return 0 if passed > 0 and passed + skipped == len(words) else 1


def main():
    command, work, *rest = sys.argv[1:]
    if command == "programs":
        print(*programs(work), sep="\n")
    elif command == "jobs":
        write_jobs(pathlib.Path(work), pathlib.Path(rest[0]), *rest[1:])
    else:
        sys.exit(verdict(pathlib.Path(work), *rest))


if __name__ == "__main__":
    main()
