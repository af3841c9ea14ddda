#!/usr/bin/env python3
"""Turns what `nifti_study score` printed into the tables of docs/accuracy.md.

usage: tables.py FOLDER RADII.tsv ACCURACY.tsv

FOLDER has ch2.tsv (closed reference), ch2_asis.tsv, aomic.tsv (templates and surfaces, then tissue
labels), swiss.tsv and mni152.tsv. Writes all scores to RADII.tsv (-1: not finished), puts those with
the default radii and without finishing into ACCURACY.tsv in place of the old ones, and prints the
tables in Markdown.
"""
import csv
import sys

MASKS = [("ch2", "closed, filled", "ch2", 0), ("ch2", "as it is", "ch2_asis", 0),
         ("aomic-1", "templates and surfaces", "aomic", 0), ("aomic-1", "tissue labels", "aomic", 1),
         ("swiss", "given", "swiss", 0), ("mni152", "given", "mni152", 0)]
SERIES = {"not finished": ("-1", "-1"), "defaults": ("3", "6")}


def read(folder):
    """{(head, mask): {(w5, opening, closing): [Dice, false-positive mL, false-negative mL]}}"""
    scores = {}
    for head, mask, name, place in MASKS:
        with open(f"{folder}/{name}.tsv", newline="") as file:
            rows = list(csv.reader(file, delimiter="\t"))[1:]
        scores[head, mask] = {tuple(row[:3]): row[4 + 3 * place:7 + 3 * place] for row in rows}
    return scores


def worst(scores, key):
    """Least Dice over the heads and the head it is on; key maps a head to (w5, opening, closing).
    The reference of ch2 as it is leaves out the sulci and does not count."""
    return min((float(cells[key(head)][0]), head) for (head, mask), cells in scores.items()
               if mask != "as it is")


def write(path, rows):
    with open(path, "w", newline="") as file:
        csv.writer(file, delimiter="\t", lineterminator="\n").writerows(rows)


def update(path, scores):
    """Puts the scores into ACCURACY.tsv; returns the W5 that auto chose there for every head."""
    with open(path, newline="") as file:
        header, *old = csv.reader(file, delimiter="\t")
    rows = [header]
    for (head, mask), cells in scores.items():
        for series, radii in SERIES.items():
            rows += [[head, mask, series, w5, *cell] for (w5, *key), cell in cells.items()
                     if tuple(key) == radii]
        rows += [row for row in old if row[:2] == [head, mask] and row[2] not in SERIES]
    write(path, rows)
    return {row[0]: row[3] for row in rows if row[2] == "auto"}


def report(scores, auto):
    cells = scores["swiss", "given"]
    print("best fixed settings over all W5 and radii:")
    fixed = sorted(((worst(scores, lambda _: key), key) for key in cells), reverse=True)
    for (dice, head), key in fixed[:8]:
        print(f"  W5 {key[0]}, radii {key[1]} and {key[2]}: {dice:.3f} ({head})")
    print("\nworst Dice at the W5 of auto: opening (rows) and closing")
    for opening in range(7):
        row = [worst(scores, lambda head: (auto[head], str(opening), str(c)))[0] for c in range(7)]
        print(f"| {opening} | " + " | ".join(f"{dice:.3f}" for dice in row) + " |")
    for series, radii in SERIES.items():
        print(f"\n{series}: Dice, false-positive and false-negative mL")
        for w5 in sorted({key[0] for key in cells}, key=float):
            row = [cell[w5, *radii] for cell in scores.values()]
            print(f"| {w5} | " + " | ".join(f"{float(d):.3f}, {float(p):.0f}, {float(n):.0f}"
                                            for d, p, n in row) + " |")


def main():
    folder, radii, accuracy = sys.argv[1:]
    scores = read(folder)
    write(radii, [["head", "mask", "w5", "open_mm", "close_mm", "dice", "fp_ml", "fn_ml"]] +
          [[head, mask, *key, *cell] for (head, mask), cells in scores.items()
           for key, cell in cells.items()])
    report(scores, update(accuracy, scores))


if __name__ == "__main__":
    main()
