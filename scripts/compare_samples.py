#!/usr/bin/env python3
"""compare_samples.py STEP FOLDER COMMAND...: runs the tool over the samples in FOLDER and compares what it writes.

Every STEP-th document is compared. COMMAND is the tool, with what runs it in front. Beside NAME.kesp is the JSON that the tool must make of it,
NAME.records.jsonl and its like. Values must be equal, and so must their kinds: 1 is not 1.0.
"""
import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys

CASES = {
    ".records.jsonl": ["dump", "--records"],
    ".records-all.jsonl": ["dump", "--include-deleted"],
    ".dataset.json": ["dump", "--dataset"],
    ".dataset-all.json": ["dump", "--dataset", "--include-deleted"],
}


def documents(text):
    """The documents of a text, one on each line or one over several."""
    try:
        return [json.dumps(json.loads(text), sort_keys=True)]
    except ValueError:
        return [json.dumps(json.loads(line), sort_keys=True) for line in text.splitlines()]


def main(step, folder, command):
    found = sorted(pathlib.Path(folder).rglob("*.kesp"))
    pairs = [(path, ending) for path in found for ending in CASES if path.with_suffix(ending).exists()][::step]

    def agrees(pair):
        path, ending = pair
        got = subprocess.run([*command, *CASES[ending], str(path)], capture_output=True, check=False)
        want = path.with_suffix(ending).read_text(encoding="utf-8")
        same = documents(got.stdout.decode("utf-8")) == documents(want)
        if not same or (got.returncode == 0) == bool(got.stderr):
            print(f"{path}: not as in {ending}", file=sys.stderr)
            return False
        return True

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        good = list(pool.map(agrees, pairs))
    print(f"{sum(good)} of {len(pairs)} documents agree")
    return 0 if pairs and all(good) else 1


if __name__ == "__main__":
    sys.exit(main(int(sys.argv[1]), sys.argv[2], sys.argv[3:]))
