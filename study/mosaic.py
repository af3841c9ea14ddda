#!/usr/bin/env python3
"""Puts the pictures of doubtful masks together, to be looked at.

usage: mosaic.py [--all] [--columns N] RESULTS.tsv FOLDER OUT.png

Takes the rows of robustness.py's results with a Dice below 0.93 or flags (--all: every row) and
their pictures in FOLDER, which robustness.py --keep has put there, worst Dice first, and writes
head, case, Dice and flags over each. Debian: python3-pil.
"""
import argparse
import pathlib

from PIL import Image, ImageDraw

from robustness import failed, names, read

WIDTH = 480  # of one picture, in pixels
LINE = 14


def tile(row, path):
    """The picture with its caption above, or the caption alone."""
    words = [row["dice"] or row["status"], row["flags"], row["reason"][:60]]
    caption = "  ".join([names([row]), *filter(None, words)])
    picture = Image.open(path).convert("RGB") if path.exists() else Image.new("RGB", (WIDTH, 1))
    picture = picture.resize((WIDTH, max(1, picture.height * WIDTH // picture.width)))
    result = Image.new("RGB", (WIDTH, picture.height + LINE), "black")
    result.paste(picture, (0, LINE))
    ImageDraw.Draw(result).text((3, 1), caption, fill="yellow" if row["flags"] else "white")
    return result


def assemble(tiles, columns):
    rows = [tiles[n : n + columns] for n in range(0, len(tiles), columns)]
    heights = [max(tile.height for tile in row) for row in rows]
    sheet = Image.new("RGB", (len(rows[0]) * WIDTH, sum(heights)), "black")
    for n, row in enumerate(rows):
        for column, picture in enumerate(row):
            sheet.paste(picture, (column * WIDTH, sum(heights[:n])))
    return sheet


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("results")
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("out")
    parser.add_argument("--all", action="store_true", help="every row")
    parser.add_argument("--columns", type=int, default=4)
    arguments = parser.parse_args()
    rows = [row for row in read(arguments.results) if arguments.all or failed(row) or row["flags"]]
    if not rows:
        raise SystemExit("no mask is doubtful")
    rows.sort(key=lambda row: float(row["dice"] or 0))
    assemble([tile(row, arguments.folder / f"{row['head']}__{row['case']}.png") for row in rows],
             arguments.columns).save(arguments.out)


if __name__ == "__main__":
    main()
