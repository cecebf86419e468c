#!/usr/bin/env python3
"""Runs the commands of the guide's chapter on faults and makes its pictures, docs/faults, from their results.

usage: docs/faults.py ZYTVIEW [--update]

Fails when a command prints something else than the guide says. --update writes what it prints into the guide.
"""
import os
import re
import subprocess
import sys
import tempfile

DOCS = os.path.dirname(os.path.abspath(__file__))
# Pictures of the commands, and ffmpeg's filters for each and for all, which make small files.
PICTURES = {
    "pictures": ([f"{name}_640x480_Raw10" for name in ("before", "clipped", "column", "shifted")],
                 "crop=320:240:260:120", "hstack=4"),
    "histogram": (["histogram"], "scale=640:-1:flags=area", "null"),
    "profile": (["profile"], "scale=640:-1:flags=area", "null"),
    "difference": (["difference"], "null", "null"),
}


def main():
    zytview, update = os.path.abspath(sys.argv[1]), "--update" in sys.argv
    with open(f"{DOCS}/guide.md", encoding="utf-8") as file:
        guide = file.read()
    begin = guide.index("## 11. Find a fault")
    chapter = guide[begin:guide.index("\n## ", begin)]
    with tempfile.TemporaryDirectory() as home:
        os.makedirs(f"{home}/zyt")
        os.symlink(os.path.dirname(zytview), f"{home}/zyt/bin")

        def run(commands):
            return subprocess.run(["bash", "-c", commands], env={**os.environ, "HOME": home}, check=False, text=True,
                                  stdout=subprocess.PIPE).stdout

        def run_block(block):
            language, content = block.groups()
            setup = "" if "mkdir" in content else "cd ~/faults && PATH=$HOME/zyt/bin:$PATH && "
            if language:
                run(setup + content)
                return block.group()
            command = content.splitlines()[0]
            return f"```\n{command}\n{run(setup + command[2:])}```"

        printed = re.sub(r"```(sh)?\n(.*?)```", run_block, chapter, flags=re.DOTALL)
        if update:
            with open(f"{DOCS}/guide.md", "w", encoding="utf-8") as file:
                file.write(guide.replace(chapter, printed))
        elif printed != chapter:
            sys.exit(f"the commands print\n{printed}")
        os.makedirs(f"{DOCS}/faults", exist_ok=True)
        for name, (sources, each, together) in PICTURES.items():
            inputs = [word for source in sources for word in ("-i", f"{home}/faults/{source}.png")]
            parts = "".join(f"[{i}]{each}[part{i}];" for i in range(len(sources)))
            joined = "".join(f"[part{i}]" for i in range(len(sources))) + together
            colours = "format=rgb24,split[a][b];[a]palettegen=max_colors=64[p];[b][p]paletteuse=dither=none"
            subprocess.run(["ffmpeg", "-v", "error", "-y", *inputs, "-filter_complex", f"{parts}{joined},{colours}",
                            "-pred", "mixed", "-compression_level", "100", f"{DOCS}/faults/{name}.png"], check=True)


main()
