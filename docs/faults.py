#!/usr/bin/env python3
"""Runs the commands of the guide's chapter on faults and makes its pictures, docs/faults, from their results.

usage: docs/faults.py ZYTVIEW

Writes into the guide what the commands print.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

DOCS = pathlib.Path(__file__).resolve().parent
DUMPS = [f"{name}_640x480_Raw10" for name in ("before", "clipped", "column", "shifted")]
# Sources and ffmpeg's filters of each picture, for small files.
SIDE_BY_SIDE = "".join(f"[{i}]crop=320:240:260:120[c{i}];" for i in range(4)) + "[c0][c1][c2][c3]hstack=4"
SMALLER = "scale=640:-1:flags=area"
PICTURES = {"pictures": (DUMPS, SIDE_BY_SIDE), "difference": (["difference"], "null"),
            "histogram": (["histogram"], SMALLER), "profile": (["profile"], SMALLER)}


def main():
    guide = (DOCS / "guide.md").read_text(encoding="utf-8")
    begin = guide.index(". Find a fault in a dump\n")
    end = guide.index("\n## ", begin)
    with tempfile.TemporaryDirectory() as home:
        os.makedirs(f"{home}/zyt")
        os.symlink(os.path.dirname(os.path.abspath(sys.argv[1])), f"{home}/zyt/bin")

        def run(block):
            """Returns a block after its commands have run: all of them, or the one before the output."""
            commands = block[2] if block[1] else block[2].splitlines()[0][2:]
            setup = "" if "mkdir" in commands else "cd ~/faults && PATH=$HOME/zyt/bin:$PATH && "
            printed = subprocess.run(["bash", "-c", setup + commands], env={**os.environ, "HOME": home}, check=False,
                                     stdout=subprocess.PIPE, text=True).stdout
            return block[0] if block[1] else f"```\n$ {commands}\n{printed}```"

        chapter = re.sub(r"```(sh)?\n(.*?)```", run, guide[begin:end], flags=re.DOTALL)
        for name, (sources, filters) in PICTURES.items():
            inputs = [word for source in sources for word in ("-i", f"{home}/faults/{source}.png")]
            filters += ",format=rgb24,split[a][b];[a]palettegen=max_colors=64[p];[b][p]paletteuse=dither=none"
            subprocess.run(["ffmpeg", "-v", "error", "-y", *inputs, "-filter_complex", filters, "-pred", "mixed",
                            "-compression_level", "100", f"{DOCS}/faults/{name}.png"], check=True)
    (DOCS / "guide.md").write_text(guide[:begin] + chapter + guide[end:], encoding="utf-8")


main()
