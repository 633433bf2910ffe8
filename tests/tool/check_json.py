"""Holds every JSON document of the tool against docs/kesp.schema.json.

check_json.py KESP SCHEMA FOLDER [SAMPLES]

Makes surveys in FOLDER, whole and damaged ones, from the one in FOLDER/survey.kesp; those of SAMPLES are read where
they are. Every sub-command is run on every file, on none, and on what is no data file.
"""

import json
import pathlib
import shutil
import subprocess
import sys

import jsonschema

READING = {
    "dump": [["dump"], ["dump", "--include-deleted"]],
    "dataset": [["dump", "--dataset"], ["dump", "--dataset", "--include-deleted"]],
    "info": [["info", "--json"]],
    "validate": [["validate", "--json"]],
    "find": [["find", "--json"], ["find", "--json", "--include-deleted", "--name", "e", "--partial"]],
    "copy": [["copy", "--json", "--force"]],
    "repair": [["repair", "--json", "--force", "--salvage"], ["repair", "--json", "--force", "--format", "1", "--lossy"]],
}
MAKES_A_FILE = ("copy", "repair")


def documents(text):
    # Lone surrogates are the tool's business; Python's parser keeps them.
    return [json.loads(line) for line in text.splitlines()]


class Checker:
    def __init__(self, tool, schema):
        self.tool = tool
        self.definitions = json.loads(pathlib.Path(schema).read_text())
        self.checked = 0
        self.failed = 0

    def run(self, definition, arguments):
        done = subprocess.run([self.tool, *arguments], capture_output=True, text=True, errors="surrogateescape")
        validator = jsonschema.Draft202012Validator({**self.definitions, "$ref": "#/$defs/" + definition})
        lines = documents(done.stdout)
        if not lines:
            self.fail(arguments, "no document; " + done.stderr)
        for document in lines:
            self.checked += 1
            error = jsonschema.exceptions.best_match(validator.iter_errors(document))
            if error:
                self.fail(arguments, f"{list(error.absolute_path)}: {error.message}")
        # One truth: what the document says is what the exit status says.
        if lines and "whole" in lines[-1] and lines[-1]["whole"] != (done.returncode == 0):
            self.fail(arguments, f"whole is {lines[-1]['whole']}, the exit status {done.returncode}")

    def fail(self, arguments, what):
        self.failed += 1
        print(" ".join(map(str, arguments)), what[:400], sep="\n  ")


def make_files(folder):
    whole = (folder / "survey.kesp").read_bytes()
    variants = {"empty": whole[:50], "cut": whole[: len(whole) - 7], "headless": whole[:50] + whole[4150:],
                "foreign": b"something else", "nothing": b"", "tail": whole + bytes(30)}
    for step in range(60, len(whole), max(1, len(whole) // 25)):
        changed = bytearray(whole)
        changed[step] ^= 0xFF
        variants[f"changed{step}"] = bytes(changed)
    for name, content in variants.items():
        (folder / f"{name}.kesp").write_bytes(content)
    return sorted(folder.glob("*.kesp")) + [folder / "not there"]


def main(tool, schema, folder, samples=None):
    folder = pathlib.Path(folder)
    checker = Checker(tool, schema)
    files = make_files(folder)
    if samples and pathlib.Path(samples).is_dir():
        files += sorted(pathlib.Path(samples).rglob("*.kesp"))
    for definition, commands in READING.items():
        for command in commands:
            for file in files:
                made = [folder / "made"] if definition in MAKES_A_FILE else []
                checker.run(definition, [*command, file, *made])
    print(f"{checker.checked} documents, {checker.failed} failures")
    return 1 if checker.failed or not checker.checked else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
