#!/usr/bin/env python3
"""Measures tavrel-nifti on the scans of changes.py: masks, warnings, time and memory.

usage: robustness.py COMMAND CASES.tsv RESULTS.tsv [--heads H ...] [--cases C ...] [--set S ...]
                     [--jobs N] [--options "..."] [--keep FOLDER] [--against OTHER.tsv]
       robustness.py --summary RESULTS.tsv [--against OTHER.tsv]

COMMAND is the binary; it runs once a scan with its defaults (files and all outputs included) and
the extra options. RESULTS.tsv gets a row as soon as a scan is done:

  status   done; refused (an exit status that says so and no mask); crashed (a signal, also after
           --seconds); wrong (a mask is missing or not on the scan's grid)
  dice     with the mask of the table; empty without a mask
  ml, w5, confidence, flags   from the command's report
  cpu_s, peak_mb   user and system time of all threads, and peak resident memory
  reason   the command's words when it did not do the scan

--keep leaves the pictures of the masks as HEAD__CASE.png there, for mosaic.py. --against compares
the Dice with that of other results, case by case. Debian: python3-nibabel.
"""
import argparse
import csv
import json
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

import nibabel
import numpy

COLUMNS = ["head", "case", "set", "kind", "status", "dice", "ml", "w5", "confidence", "flags",
           "cpu_s", "peak_mb", "reason"]
GOOD = 0.93  # a lower Dice is a failure
REFUSALS = (2, 3)  # the command's exit statuses for scans; 1 is wrong usage
NOISE = 0.005  # a smaller difference between two results is none


def read(path):
    with open(path, newline="") as file:
        return list(csv.DictReader(file, delimiter="\t"))


# One scan

def dice(path, reference_path):
    """Overlap of two masks, or None where their grids differ."""
    mask, reference = (numpy.asanyarray(nibabel.load(p).dataobj) > 0
                       for p in (path, reference_path))
    if mask.shape != reference.shape:
        return None
    return 2 * numpy.count_nonzero(mask & reference) / max(1, mask.sum() + reference.sum())


def entry_of(report):
    """The report's entry on the scan; nothing where the command wrote none."""
    try:
        return json.loads(report.read_text())["scans"][0]
    except (OSError, ValueError, LookupError):
        return {}


def judge(cost, mask, reference):
    """Status and Dice of a run."""
    if cost["status"] < 0:
        return "crashed", None
    if not mask.exists():
        return ("refused" if cost["status"] in REFUSALS else "wrong"), None
    overlap = dice(mask, reference)
    return ("wrong" if overlap is None else "done"), overlap


def run(row, arguments):
    """Strips one scan of the table in a folder of its own and returns its row of results."""
    measured = pathlib.Path(__file__).with_name("measured.py")
    with tempfile.TemporaryDirectory(prefix="robustness-") as name:
        folder = pathlib.Path(name)
        report, mask, picture = (folder / n for n in ("report.json", "mask.nii", "qc.png"))
        command = [arguments.command, row["scan"], "--quiet", "--out-dir", name, "--mask", mask,
                   "--qc", picture, "--json", report, *shlex.split(arguments.options)]
        job = subprocess.run([sys.executable, "-S", measured, folder / "cost",
                              str(arguments.seconds), *command], capture_output=True, text=True)
        cost = json.loads((folder / "cost").read_text())
        entry = entry_of(report)
        status, overlap = judge(cost, mask, row["mask"])
        if arguments.keep and picture.exists():
            shutil.copyfile(picture, arguments.keep / f"{row['head']}__{row['case']}.png")
    reason = entry.get("error") or " ".join(job.stderr.split())
    return {**{key: row[key] for key in COLUMNS[:4]}, "status": status,
            "dice": "" if overlap is None else f"{overlap:.4f}",
            "ml": number(entry.get("volume_ml"), 0), "w5": number(entry.get("w5"), 3),
            "confidence": number(entry.get("confidence"), 2),
            "flags": ",".join(flag["code"] for flag in entry.get("flags", [])),
            "cpu_s": number(cost["cpu_s"], 2), "peak_mb": number(cost["peak_mb"], 0),
            "reason": "" if status == "done" else reason}


def number(value, digits):
    return "" if value is None else f"{round(value, digits):g}"


def measure(arguments):
    rows = [row for row in read(arguments.table)
            if all(not chosen or row[key] in chosen for key, chosen in
                   (("head", arguments.heads), ("case", arguments.cases), ("set", arguments.set)))]
    if arguments.keep:
        arguments.keep.mkdir(parents=True, exist_ok=True)
    results = []
    with open(arguments.results, "w", newline="") as file, ThreadPoolExecutor(
            arguments.jobs) as pool:
        writer = csv.DictWriter(file, COLUMNS, delimiter="\t", lineterminator="\n")
        writer.writeheader()
        for result in pool.map(lambda row: run(row, arguments), rows):
            writer.writerow(result)
            file.flush()
            results.append(result)
    return results


# What the rows say

def told(row):
    return row["status"] == "refused" or bool(row["flags"])


def failed(row):
    """No mask, or one that is far from what is due, whether told or not."""
    return not row["dice"] or float(row["dice"]) < GOOD


def silent(row):
    """The user is left with a wrong mask and no word about it."""
    return not told(row) and (failed(row) or row["kind"] == "must-tell")


def names(rows):
    return " ".join(f"{row['head']}/{row['case']}" for row in rows) or "-"


def summarise(rows):
    good = [row for row in rows if row["kind"] == "good"]
    scores = [float(row["dice"] or 0) for row in good]
    times = [float(row["cpu_s"]) for row in rows]
    if good:
        least = min(good, key=lambda row: float(row["dice"] or 0))
        bad = [row for row in good if failed(row)]
        alarms = [row for row in good if told(row) and not failed(row)]
        print(f"  scans that should work: {len(good)}, Dice mean {numpy.mean(scores):.4f}, "
              f"least {least['dice'] or 'none'} ({names([least])})")
        print(f"  below {GOOD}: {len(bad)}: {names(bad)}")
        print(f"  good told as bad: {len(alarms)}: {names(alarms)}")
    must = [row for row in rows if row["kind"] == "must-tell"]
    either = [row for row in rows if row["kind"] == "right-or-told"]
    print(f"  must be told: {len(must)}, told {sum(map(told, must))}; right or told: "
          f"{len(either)}, are {sum(told(row) or not failed(row) for row in either)}")
    print(f"  failures that nothing told: {names(filter(silent, rows))}")
    broken = [row for row in rows if row["status"] in ("crashed", "wrong")]
    print(f"  crashed or without a usable mask: {names(broken)}")
    worst = max(rows, key=lambda row: float(row["cpu_s"]))
    peak = max(float(row["peak_mb"]) for row in rows)
    print(f"  CPU mean {numpy.mean(times):.2f} s, worst {max(times):.2f} s ({names([worst])}); "
          f"peak memory {peak:.0f} MB")


def cell(row):
    if row is None:
        return ""
    text = f"{float(row['dice']):.3f}" if row["dice"] else row["status"]
    return text + (" *" if row["flags"] else "") + (" !" if silent(row) else "")


def table(rows):
    heads = list(dict.fromkeys(row["head"] for row in rows))
    found = {(row["head"], row["case"]): row for row in rows}
    print("\nDice; *: flagged; !: wrong and nothing told\n")
    print("| case | kind | " + " | ".join(heads) + " |\n|---|---|" + "---|" * len(heads))
    for case, kind in dict.fromkeys((row["case"], row["kind"]) for row in rows):
        print(f"| {case} | {kind} | " +
              " | ".join(cell(found.get((head, case))) for head in heads) + " |")


def compare(rows, others):
    found = {(row["head"], row["case"]): row for row in others}
    pairs = [(row, found[key]) for row in rows if (key := (row["head"], row["case"])) in found
             and row["kind"] != "must-tell"]
    gains = sorted(((float(row["dice"] or 0) - float(other["dice"] or 0), row, other)
                   for row, other in pairs), key=lambda gain: gain[0])
    if not gains:
        return
    print(f"\nagainst the other results: Dice {numpy.mean([g[0] for g in gains]):+.4f} on "
          f"{len(gains)} scans that both have; differences of more than {NOISE}:")
    for gain, row, other in gains:
        if abs(gain) > NOISE:
            print(f"  {gain:+.4f}  {names([row])}: {other['dice'] or other['status']} (W5 "
                  f"{other['w5']}) -> {row['dice'] or row['status']} (W5 {row['w5']})")


def parse():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("command", nargs="?", help="the binary of tavrel-nifti")
    parser.add_argument("table", nargs="?", help="the table of changes.py")
    parser.add_argument("results", nargs="?", help="file for the results")
    parser.add_argument("--summary", metavar="RESULTS", help="run nothing, sum up these results")
    parser.add_argument("--heads", nargs="+", help="only these heads")
    parser.add_argument("--cases", nargs="+", help="only these cases")
    parser.add_argument("--set", nargs="+", help="only these sets")
    parser.add_argument("--jobs", type=int, default=1, help="scans at a time")
    parser.add_argument("--seconds", type=int, default=300, help="time a scan may take")
    parser.add_argument("--options", default="", help="more options for the command")
    parser.add_argument("--keep", type=pathlib.Path, metavar="FOLDER", help="keep pictures there")
    parser.add_argument("--against", metavar="RESULTS", help="compare with these results")
    arguments = parser.parse_args()
    if not arguments.summary and not arguments.results:
        parser.error("COMMAND, CASES.tsv and RESULTS.tsv are needed, or --summary")
    return arguments


def main():
    arguments = parse()
    rows = read(arguments.summary) if arguments.summary else measure(arguments)
    for group in dict.fromkeys(row["set"] for row in rows):
        print(f"{group}:")
        summarise([row for row in rows if row["set"] == group])
    table(rows)
    if arguments.against:
        compare(rows, read(arguments.against))


if __name__ == "__main__":
    main()
