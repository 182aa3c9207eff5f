#!/usr/bin/env python3
"""Counts non-blank, non-comment C/C++ lines per folder, and the lines under Tests/
against those everywhere else (the suite should stay between a quarter and a third).

    scripts/line-counts.py            the ratio
    scripts/line-counts.py --folders  per folder, then the ratio
"""
import os
import subprocess
import sys

os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))


def count(path):
    lines, in_block = 0, False
    for line in open(path, errors="replace"):
        text = line.strip()
        if in_block:
            if "*/" not in text:
                continue
            in_block, text = False, text.split("*/", 1)[1].strip()
        if text.startswith("/*"):
            if "*/" not in text:
                in_block = True
                continue
            text = text.split("*/", 1)[1].strip()
        if text and not text.startswith("//"):
            lines += 1
    return lines


files = subprocess.run(["git", "ls-files", "*.h", "*.hpp", "*.c", "*.cc", "*.cpp"], capture_output=True, text=True,
                       check=True).stdout.split()
folders = {}
for path in files:
    folder = os.path.dirname(path)
    folders[folder] = folders.get(folder, 0) + count(path)
tests = sum(n for folder, n in folders.items() if folder.split("/")[0] == "Tests")
other = sum(folders.values()) - tests
if "--folders" in sys.argv:
    for folder in sorted(folders):
        print(f"{folders[folder]:6d} {folder}")
print(f"tests {tests}, other {other}, ratio {tests / other:.3f}")
