#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs one scenario: a replay led by an operator's script, its output held against the expected transcript.

Usage: run_scenario.py ANTI_CPU FOLDER [--update]

A scenario is a folder with
    traffic*.txt   what a capture holds (see traffic.py), one file a capture
    samples.txt    names of captures in samples/, one a line (either may be missing)
    options.txt    options of the replay, one a line (may be missing)
    config.txt     the operator's lines before the first packet (may be missing)
    script.txt     the operator's lines (missing: a replay without an operator)
    commands.txt   in place of options, config and script: what follows "anti-cpu", one command a line
    expected.txt   the transcript: standard output, then standard error, then the exit status
    events.txt     the events, one a line (may be missing; what they may hold is checked in any case)
--update writes these two from what the program prints now.
"""
import difflib
import json
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

import jsonschema

TESTS = pathlib.Path(__file__).resolve().parent
SAMPLES = TESTS.parent.parent / "samples"
SCHEMA = TESTS.parent.parent / "docs" / "events.schema.json"


def captures_of(folder, work):
    captures = []
    for description in sorted(folder.glob("traffic*.txt")):
        captures.append(work / description.with_suffix(".pcap").name)
        subprocess.run([sys.executable, TESTS / "traffic.py", description, captures[-1]], check=True)
    samples = folder / "samples.txt"
    if samples.exists():
        captures += [SAMPLES / name for name in samples.read_text(encoding="utf-8").split()]
    return captures


def commands_of(program, folder, work):
    captures = captures_of(folder, work)
    commands = folder / "commands.txt"
    if commands.exists():
        return [[program, *shlex.split(line)] for line in commands.read_text(encoding="utf-8").splitlines()]
    command = [program, "replay", *captures, "--events", work / "events"]
    options = folder / "options.txt"
    if options.exists():
        command += shlex.split(options.read_text(encoding="utf-8"))
    for kind in ("config", "script"):
        if (folder / f"{kind}.txt").exists():
            command += [f"--{kind}", folder / f"{kind}.txt"]
    return [command]


def transcript(program, folder, work):
    return "".join(transcript_of(command, program, folder, work) for command in commands_of(program, folder, work))


def transcript_of(command, program, folder, work):
    # In a folder of its own: what the script saves lies there. A program that hangs is a failure.
    result = subprocess.run(command, cwd=work, capture_output=True, timeout=300, check=False)
    text = result.stdout.decode() + result.stderr.decode() + f"status {result.returncode}\n"
    # What takes real time, and what the transfer library says of it.
    text = re.sub(r'(?m)^(real time |.*"(?:real|packets_per)_second.*: |.* 13 upload of .* failed: ).*$', r"\1(not compared)", text)
    text = text.replace("\r\n", "\n")  # traces
    text = text.replace(f" --events {work}/events", "")  # what the verdict proposes is the command line as it was given
    return text.replace(str(program), "anti-cpu").replace(str(work) + "/", "").replace(str(folder) + "/", "").replace(str(SAMPLES) + "/", "")


def checked_events(work):
    events = work / "events"
    text = events.read_text(encoding="utf-8") if events.exists() else ""
    check = jsonschema.Draft202012Validator(json.loads(SCHEMA.read_text(encoding="utf-8")))
    for line in {re.sub(r"\d", "0", line): line for line in text.splitlines()}.values():  # one of those that are alike
        check.validate(json.loads(line))
    return re.sub(r'"bytes":\d+,"budget', '"bytes":0,"budget', text)  # what the module's records take is its own matter


def main():
    program = pathlib.Path(sys.argv[1]).resolve()
    folder = pathlib.Path(sys.argv[2]).resolve()
    with tempfile.TemporaryDirectory() as work:
        found = {"expected.txt": transcript(program, folder, pathlib.Path(work))}
        events = checked_events(pathlib.Path(work))
    if (folder / "events.txt").exists():
        found["events.txt"] = events
    differences = []
    for name, text in found.items():
        if "--update" in sys.argv:
            (folder / name).write_text(text, encoding="utf-8")
        expected = (folder / name).read_text(encoding="utf-8").splitlines(keepends=True)
        differences += difflib.unified_diff(expected, text.splitlines(keepends=True), name, "what was printed")
    sys.stdout.writelines(differences)
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main())
