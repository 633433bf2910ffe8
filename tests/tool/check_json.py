"""Holds every JSON document of the tool against docs/kesp.schema.json.

check_json.py KESP SCHEMA FOLDER [SAMPLES]

Makes surveys in FOLDER, whole and damaged ones, or takes those of SAMPLES. Every sub-command that only reads is run on
every file, on none, and on what is no data file. Those that change a file are run on a copy of each.
"""

import json
import os
import pathlib
import struct
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
# On a copy of each file; OTHER is a survey with numbers of its own, NEW a file that is not there.
CHANGING = {
    "header": [["header", "COPY", "--set", "HeaderText1=a"], ["header", "COPY", "--set", "None=a"]],
    "set": [["set", "COPY", "--feature", "1", "--attribute", "Height=x"], ["set", "COPY", "--feature", "9", "--attribute", "a=b"]],
    "delete": [["delete", "COPY", "--feature", "1"], ["delete", "COPY", "--point", "7"]],
    "undelete": [["undelete", "COPY", "--feature", "1"], ["undelete", "COPY", "--point", "2"]],
    "append": [["append", "OTHER", "COPY"], ["append", "--renumber", "OTHER", "COPY"], ["append", "COPY", "COPY"]],
    "merge": [["merge", "-o", "NEW", "OTHER", "COPY"], ["merge", "--renumber", "-o", "NEW", "OTHER", "COPY"]],
}


class Checker:
    def __init__(self, tool, schema):
        self.tool = [*os.environ.get("KESP_EMULATOR", "").split(), tool]
        self.definitions = json.loads(pathlib.Path(schema).read_text())
        self.checked = 0
        self.failed = 0

    def run(self, definition, arguments):
        done = subprocess.run([*self.tool, *arguments], capture_output=True, text=True, errors="surrogateescape")
        validator = jsonschema.Draft202012Validator({**self.definitions, "$ref": "#/$defs/" + definition})
        # Lone surrogates are the tool's business; Python's parser keeps them.
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        if not lines:
            self.fail(arguments, "no document; " + done.stderr)
        for document in lines:
            self.checked += 1
            error = jsonschema.exceptions.best_match(validator.iter_errors(document))
            if error:
                self.fail(arguments, f"{list(error.absolute_path)}: {error.message}")
        # One truth: what the document says is what the exit status says.
        if definition in READING and "whole" in (lines or [{}])[-1] and lines[-1]["whole"] != (done.returncode == 0):
            self.fail(arguments, f"whole is {lines[-1]['whole']}, the exit status {done.returncode}")

    def fail(self, arguments, what):
        self.failed += 1
        print(" ".join(map(str, arguments)), what[:400], sep="\n  ")


def record(kind, version, body, flags=0):
    return struct.pack("<IHII", kind, version, flags, len(body)) + body


def text(value, units):
    return value.encode("utf-16-le", "surrogatepass").ljust(2 * units, b"\0")


def survey():
    records = [record(3, 2, bytes(4086))]
    for number, name in ((1, "Oak \ud83c"), (2, "Path")):
        records.append(record(1, 3, struct.pack("<I", number) + text(name, 256) + struct.pack("<HIH", number, 9, 34)))
        records.append(record(5, 3, struct.pack("<I", number) + text("Height", 256) + struct.pack("<H", number)
                              + bytes(1024) + struct.pack("<d", float("nan")) + bytes(162)))
        records.append(record(2, 2, struct.pack("<II", number, number) + text("A", 21) + struct.pack("<i", -number)
                              + struct.pack("<ddd", 1.5, 2, 3) + bytes(30), flags=number - 1))
        records.append(record(4, 1, struct.pack("<I", number)))
    records.append(record(6, 2, text("a note", 256)))
    sizes = [3, 4, 8, 8, 24, 32, 4, 16, 4, 20, 24, 24, 16, 8]
    for kind, size in enumerate(sizes):
        block = struct.pack("<I", 4) + text("n", 2) + struct.pack("<I", size) + bytes(size)
        records.append(record(9, 2, struct.pack("<II", kind, len(block)) + block))
    return b"Corvanthe Survey Devices -- Kesp Data File" + struct.pack("<HIH", 3, 2, 0) + b"".join(records)


def make_files(folder):
    whole = survey()
    variants = {"whole": whole, "empty": whole[:50], "cut": whole[: len(whole) - 7],
                "headless": whole[:50] + whole[4150:], "foreign": b"something else", "nothing": b"",
                "tail": whole + bytes(30)}
    for step in range(40, len(whole), max(1, len(whole) // 25)):
        changed = bytearray(whole)
        changed[step] ^= 0xFF
        variants[f"changed{step}"] = bytes(changed)
    for name, content in variants.items():
        (folder / f"{name}.kesp").write_bytes(content)
    return sorted(folder.glob("*.kesp")) + [folder / "not there"]


def main(tool, schema, folder, samples=None):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    checker = Checker(tool, schema)
    files = sorted(pathlib.Path(samples).rglob("*.kesp")) if samples else make_files(folder)
    for definition, commands in READING.items():
        for command in commands:
            for file in files:
                made = [folder / "made"] if definition in MAKES_A_FILE else []
                checker.run(definition, [*command, file, *made])
    other = folder / "whole.kesp"
    other.write_bytes(survey())
    for definition, commands in CHANGING.items():
        for file in files:
            copy = folder / "copy"
            copy.unlink(missing_ok=True)
            if file.exists():
                copy.write_bytes(file.read_bytes())
            for command in commands:
                (folder / "new").unlink(missing_ok=True)
                names = {"COPY": copy, "OTHER": other, "NEW": folder / "new"}
                checker.run(definition, [names.get(word, word) for word in command] + ["--json"])
    print(f"{checker.checked} documents, {checker.failed} failures")
    return 1 if checker.failed or not checker.checked else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
