#!/usr/bin/env python3
"""Runs one scenario: a replay led by an operator's script, its output held against the expected transcript.

Usage: run_scenario.py ANTI_CPU FOLDER [--update]

A scenario is a folder with
    traffic*.txt   what a capture holds (see traffic.py), one file a capture
    samples.txt    names of captures in samples/, one a line (either may be missing)
    options.txt    options of the replay, one a line (may be missing)
    config.txt     the operator's lines before the first packet (may be missing)
    script.txt     the operator's lines (missing: a replay without an operator)
    expected.txt   the transcript: standard output, then standard error, then the exit status
--update writes expected.txt from what the program prints now.
"""
import difflib
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

TESTS = pathlib.Path(__file__).resolve().parent
SAMPLES = TESTS.parent.parent / "samples"


def captures_of(folder, work):
    captures = []
    for description in sorted(folder.glob("traffic*.txt")):
        captures.append(work / description.with_suffix(".pcap").name)
        subprocess.run([sys.executable, TESTS / "traffic.py", description, captures[-1]], check=True)
    samples = folder / "samples.txt"
    if samples.exists():
        captures += [SAMPLES / name for name in samples.read_text(encoding="utf-8").split()]
    return captures


def transcript(program, folder, work):
    command = [program, "replay", *captures_of(folder, work)]
    options = folder / "options.txt"
    if options.exists():
        command += shlex.split(options.read_text(encoding="utf-8"))
    for kind in ("config", "script"):
        if (folder / f"{kind}.txt").exists():
            command += [f"--{kind}", folder / f"{kind}.txt"]
    # In a folder of its own: what the script saves lies there. A program that hangs is a failure.
    result = subprocess.run(command, cwd=work, capture_output=True, timeout=300, check=False)
    text = result.stdout.decode() + result.stderr.decode() + f"status {result.returncode}\n"
    # What takes real time, and what the transfer library says of it.
    text = re.sub(r'(?m)^(real time |.*"(?:real|packets_per)_second.*: |.* 13 upload of .* failed: ).*$', r"\1(not compared)", text)
    text = text.replace("\r\n", "\n")  # traces
    return text.replace(str(program), "anti-cpu").replace(str(work) + "/", "").replace(str(folder) + "/", "").replace(str(SAMPLES) + "/", "")


def main():
    program = pathlib.Path(sys.argv[1]).resolve()
    folder = pathlib.Path(sys.argv[2]).resolve()
    expected_file = folder / "expected.txt"
    with tempfile.TemporaryDirectory() as work:
        found = transcript(program, folder, pathlib.Path(work))
    if "--update" in sys.argv:
        expected_file.write_text(found, encoding="utf-8")
        return 0
    expected = expected_file.read_text(encoding="utf-8")
    if found == expected:
        return 0
    sys.stdout.writelines(
        difflib.unified_diff(
            expected.splitlines(keepends=True), found.splitlines(keepends=True), "expected.txt", "what was printed"
        )
    )
    return 1


if __name__ == "__main__":
    sys.exit(main())
