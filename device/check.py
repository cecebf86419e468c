#!/usr/bin/env python3
"""Holds Android.bp and this directory against the tree: Soong does not run at a desk, and a source that only CMake
knows would be missed in the next device build. Prints what does not fit; the exit code is the number of faults."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# Tests that Soong does not build; Android.bp says why.
LEFT_OUT = {"faultsweep", "reliability", "samplenode", "zytview"}
# The platform's headers, and where the vendor module gets them from.
PLATFORM = {
    "android/log.h": "liblog",
    "cutils/properties.h": "libcutils",
    "BufferAllocator/BufferAllocator.h": "libdmabufheap",
    "ui/GraphicBuffer.h": "libui",
    "camxsettingsmanager.h": "%s",
    "asvloffscreen.h": "%s",
}


def parse(text):
    """Blueprint, as far as Android.bp uses it: a list of (module type, properties)."""
    text = re.sub(r"//.*", "", text)
    tokens = re.findall(r'"(?:\\.|[^"\\])*"|\w+|[\[\]{}:,]', text)

    def value():
        token = tokens.pop(0)
        if token == "[":
            items = []
            while tokens[0] != "]":
                items.append(value())
                if tokens[0] == ",":
                    tokens.pop(0)
            tokens.pop(0)
            return items
        if token == "{":
            entries = {}
            while tokens[0] != "}":
                key = tokens.pop(0)
                assert tokens.pop(0) == ":" and key not in entries, key
                entries[key] = value()
                if tokens[0] == ",":
                    tokens.pop(0)
            tokens.pop(0)
            return entries
        return {"true": True, "false": False}.get(token) if token[0] != '"' else token[1:-1]

    modules = []
    while tokens:
        modules.append((tokens.pop(0), value()))
    return modules


def leaves(value, key):
    """Everything listed under a key, however deep."""
    if not isinstance(value, dict):
        return []
    found = [item for name, inner in value.items() for item in leaves(inner, key)]
    return found + (value[key] if isinstance(value.get(key), list) else [value[key]] if key in value else [])


faults = []


def same(what, ours, theirs):
    if set(ours) != set(theirs):
        faults.append(f"{what}: only on one side: {', '.join(sorted(set(ours) ^ set(theirs)))}")


def glob(pattern):
    return [str(path.relative_to(ROOT)) for path in ROOT.glob(pattern)]


modules = {module["name"]: module for _, module in parse((ROOT / "Android.bp").read_text())}


def with_defaults(name, key):
    module = modules[name]
    inherited = [item for base in module.get("defaults", []) for item in with_defaults(base, key)]
    return leaves(module, key) + inherited


paths = ("srcs", "export_include_dirs", "local_include_dirs", "version_script", "init_rc")
for name, module in modules.items():
    for path in (path for key in paths for path in leaves(module, key)):
        if not (ROOT / path).exists():
            faults.append(f"Android.bp: {name} names {path}, which is not there")

library = glob("common/tools/**/*.cpp")
desk = [path for path in glob("platform/host/src/*.cpp") if not path.endswith("_aosp.cpp")] + ["tests/support.cpp"]
tests = [path for path in glob("tests/*_test.cpp") if path[6:-9] not in LEFT_OUT]
same("sources of libzyttools", with_defaults("libzyttools", "srcs"), library)
same("sources of libzyttools_desk", with_defaults("libzyttools_desk", "srcs"), library + desk)
same("tests", [path for name in modules if name.endswith("_test") for path in leaves(modules[name], "srcs")], tests)

for path in (path for key in paths for path in with_defaults("libzyttools", key)):
    if path.startswith(("platform/", "tests/")):
        faults.append(f"Android.bp: {path} is for desks, but libzyttools has it")
providers = with_defaults("libzyttools", "shared_libs") + with_defaults("libzyttools", "header_libs")
desk_headers = {path.removeprefix(f"platform/host/{part}/") for part in ("include", "standin")
                for path in glob(f"platform/host/{part}/**/*.h")}
for source in glob("common/tools/**/*.h") + library:
    for header in re.findall(r"#include <(.*?)>", (ROOT / source).read_text()):
        if header in desk_headers and PLATFORM.get(header) not in providers:
            faults.append(f"{source}: nothing in libzyttools provides <{header}>")

# The one directory: in the code, in the init fragment and in the policy.
text = {name: (ROOT / name).read_text() for name in ("common/tools/logging/zytofflinelog.cpp", "device/zyttools.rc",
                                                     "device/sepolicy/file_contexts", "device/sepolicy/zyttools.te")}
code, fragment, contexts, policy = text.values()
directory = re.search(r'#define ZYT_OFFLINE_LOG_DIR "(.*)/"', code)[1]
same("directory of the offline log in zyttools.rc", re.findall(r"^ +mkdir (\S+)", fragment, re.M), [directory])
same("directory of the offline log in file_contexts", re.findall(r"^(\S+)\(", contexts, re.M), [directory])
same("label of the offline log", re.findall(r":(\w+):s0", contexts), re.findall(r"^type (\w+),", policy, re.M))

for fault in faults:
    print(f"device/check.py: {fault}", file=sys.stderr)
sys.exit(len(faults))
