#!/usr/bin/env python3
"""Changes head scans and their brain masks the way scanners, archives and people do.

usage: changes.py FOLDER NAME=SCAN,MASK ... [--set NAME ...] [--cases NAME ...] [--jobs N]
       changes.py --list

Writes FOLDER/NAME__CASE.nii with FOLDER/NAME__CASE_mask.nii, and FOLDER/cases.tsv, which names them
all for robustness.py. Rows of earlier calls for other heads and cases stay in the table. The same
input gives the same files: seeds are fixed. Sizes are in millimetres; scans are turned to
right-anterior-superior storage first. Debian: python3-nibabel python3-scipy.

Sets: "seen" are the changes the method was developed with, "unseen" those kept to test it.
Kinds: "good": a good mask is due and no flag; "must-tell": nobody can strip that, or part of the
brain is missing, and a flag or a refusal is due; "right-or-told": either will do.
"""
import argparse
import csv
import pathlib
import sys
from collections import namedtuple
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass, replace

import nibabel
import numpy
from scipy import ndimage

COLUMNS = ["head", "case", "set", "kind", "scan", "mask"]
Change = namedtuple("Change", "set kind text function")
CHANGES = {}


@dataclass
class Scan:
    """data float32 and mask bool over (x, y, z); spacing in mm; affine of voxel centres in mm.
    labelled is false where the file does not tell its orientation."""
    data: numpy.ndarray
    mask: numpy.ndarray
    spacing: numpy.ndarray
    affine: numpy.ndarray
    dtype: type = numpy.float32
    labelled: bool = True

    def voxels(self, mm, axis):
        return int(round(mm / self.spacing[axis]))

    def brain(self, axis):
        """First and last index of the mask along an axis."""
        return extent(self.mask, axis)


def change(name, group, text, kind="good", **options):
    """Puts a function of a Scan into the table; options are its further arguments."""
    def register(function):
        CHANGES[name] = Change(group, kind, text, lambda scan: function(scan, **options))
        return function
    return register


# Shared steps

def extent(mask, axis):
    hits = numpy.where(mask.any(axis=tuple(k for k in range(3) if k != axis)))[0]
    return hits[0], hits[-1]


def within(mask, mm, spacing):
    return ndimage.distance_transform_edt(~mask, sampling=spacing) <= mm


def white(scan):
    """Intensity of white matter in T1 contrast."""
    return numpy.percentile(scan.data[scan.mask], 85)


def head(scan):
    """The head without air: what is bright, its largest piece, closed and filled in every slice."""
    d = scan.data
    bright = d > 0.12 * numpy.percentile(d[d > 0], 95)
    labels, count = ndimage.label(ndimage.binary_opening(bright))
    sizes = numpy.bincount(labels.ravel())
    sizes[0] = 0
    solid = labels == sizes.argmax() if count > 1 else labels > 0
    solid = ndimage.binary_closing(numpy.pad(solid, 6), iterations=5)[6:-6, 6:-6, 6:-6]
    for axis in range(3):
        for k in range(solid.shape[axis]):
            at = [slice(None)] * 3
            at[axis] = k
            solid[tuple(at)] = ndimage.binary_fill_holes(solid[tuple(at)])
    return solid


def resliced(scan, matrix, offset, shape, order=1):
    """The scan at matrix @ index + offset; outside it is 0. Spacing and affine stay as they are."""
    def sample(values, degree):
        return ndimage.affine_transform(values, matrix, offset=offset, output_shape=shape,
                                        order=degree, mode="constant", cval=0)
    return replace(scan, data=sample(scan.data, order),
                   mask=sample(scan.mask.astype(numpy.float32), 1) > 0.5)


def regridded(scan, data, mask, spacing):
    """Voxels of another size whose outer corner at the origin stays where it was."""
    ratio = spacing / scan.spacing
    affine = scan.affine.copy()
    affine[:3, 3] += affine[:3, :3] @ ((ratio - 1) / 2)
    affine[:3, :3] *= ratio[None]
    return replace(scan, data=data, mask=mask > 0.5, spacing=spacing, affine=affine)


def turned(scan, degrees, axis, margin=0.0):
    """Turned about an axis through the brain's centre, in a grid wider by margin (mm) on all sides
    but below and above."""
    if margin:
        scan = padded(scan, [(scan.voxels(margin, k),) * 2 if k < 2 else (0, 0) for k in range(3)])
    a, (i, j) = numpy.deg2rad(degrees), [k for k in range(3) if k != axis]
    turn = numpy.eye(3)
    turn[i, i] = turn[j, j] = numpy.cos(a)
    turn[i, j], turn[j, i] = -numpy.sin(a), numpy.sin(a)
    matrix = numpy.linalg.inv(numpy.diag(scan.spacing)) @ turn @ numpy.diag(scan.spacing)
    centre = numpy.array([k.mean() for k in numpy.where(scan.mask)])
    return resliced(scan, matrix, centre - matrix @ centre, scan.data.shape)


def padded(scan, widths):
    return replace(scan, data=numpy.pad(scan.data, widths), mask=numpy.pad(scan.mask, widths))


def cropped(scan, axis, first, end):
    at = [slice(None)] * 3
    at[axis] = slice(max(0, int(first)), int(end))
    affine = scan.affine.copy()
    affine[:3, 3] += affine[:3, axis] * max(0, int(first))
    return replace(scan, data=scan.data[tuple(at)], mask=scan.mask[tuple(at)], affine=affine)


def averaged(values, axis, ratio):
    """Means over ratio voxels along an axis, also parts of voxels: slices with a box profile."""
    total = numpy.cumsum(numpy.moveaxis(values, axis, 0), axis=0, dtype=numpy.float64)
    total = numpy.concatenate([numpy.zeros_like(total[:1]), total])
    edges = numpy.arange(int((len(total) - 1) / ratio) + 1) * ratio
    low = numpy.minimum(edges.astype(int), len(total) - 2)
    part = (edges - low)[:, None, None]
    at_edges = total[low] * (1 - part) + total[low + 1] * part
    return numpy.moveaxis(numpy.diff(at_edges, axis=0) / ratio, 0, axis).astype(numpy.float32)


def coarser(scan, spacing):
    """Means over larger voxels; an axis that is coarser already stays."""
    spacing = numpy.maximum(spacing, scan.spacing)
    data, mask = scan.data, scan.mask.astype(numpy.float32)
    for axis in range(3):
        if spacing[axis] > scan.spacing[axis]:
            ratio = spacing[axis] / scan.spacing[axis]
            data, mask = averaged(data, axis, ratio), averaged(mask, axis, ratio)
    return regridded(scan, data, mask, spacing)


def rician(scan, share, seed):
    """Rician noise, a share of white matter."""
    sigma, random = share * white(scan), numpy.random.default_rng(seed)
    real, imaginary = (sigma * random.standard_normal(scan.data.shape, dtype=numpy.float32)
                       for _ in range(2))
    return replace(scan, data=numpy.hypot(scan.data + real, imaginary))


def shaded(scan, field, share):
    """Multiplied by 1 - share to 1 + share: the field, stretched to its range over the head."""
    solid = head(scan)
    low, high = field[solid].min(), field[solid].max()
    return replace(scan, data=scan.data *
                   (1 + share * numpy.clip((field - low) / (high - low) * 2 - 1, -1, 1)))


def short(scan, data):
    """As 16-bit integers with the maximum of the scan at 3000."""
    return replace(scan, data=data, dtype=numpy.int16)


def scaled3000(scan):
    return numpy.round(scan.data / scan.data.max() * 3000)


# Seen while developing

@change("base", "seen", "as it is")
def base(scan):
    return scan


@change("bias40", "seen", "smooth shading of +-40 %")
def cosines(scan):
    solid = head(scan)
    ramps = []
    for axis, size in enumerate(scan.data.shape):
        low, high = extent(solid, axis)
        ramps.append((numpy.arange(size) - low) / (high - low))
    random, field = numpy.random.default_rng(7), numpy.zeros(scan.data.shape, numpy.float32)
    for i, j, k in numpy.ndindex(3, 3, 3):
        if not 0 < i + j + k <= 3:
            continue
        weight = numpy.float32(random.normal() / (i + j + k))
        x, y, z = (numpy.cos(numpy.pi * n * ramp) for n, ramp in zip((i, j, k), ramps))
        wave = x[:, None, None] * y[None, :, None] * z[None, None, :]
        field += weight * wave.astype(numpy.float32)
    return shaded(scan, field, 0.4)


change("noise5", "seen", "Rician noise, 5 % of white matter", share=0.05, seed=3)(rician)
change("noise9", "seen", "Rician noise, 9 % of white matter", share=0.09, seed=3)(rician)
change("rot20", "seen", "pitched by 20 degrees", degrees=20, axis=0)(turned)


@change("offx25", "seen", "25 mm off centre")
def off_centre(scan):
    n = scan.voxels(25, 0)
    if scan.data.shape[0] - 1 - extent(head(scan), 0)[1] < n:
        return padded(scan, [(2 * n, 0), (0, 0), (0, 0)])
    data, mask = (numpy.concatenate([numpy.zeros_like(v[:n]), v[:-n]])
                  for v in (scan.data, scan.mask))
    return replace(scan, data=data, mask=mask)


@change("pad60", "seen", "60 mm of empty space below", repeat=False)
@change("neck60", "seen", "60 mm of neck below: the last slice repeated", repeat=True)
def below(scan, repeat):
    top = extent(head(scan), 2)[1] + 1 + int(5 / scan.spacing[2])
    n = scan.voxels(60, 2)
    scan = replace(scan, data=scan.data[:, :, :top], mask=scan.mask[:, :, :top])
    scan = padded(scan, [(0, 0), (0, 0), (n, 0)])
    if repeat:
        scan.data[:, :, :n] = scan.data[:, :, n:n + 1]
    return scan


@change("aniso3", "seen", "slices of 3 mm with a Gaussian profile")
def gaussian_slices(scan):
    spacing = numpy.array([1, 1, 3.0])
    sigma = numpy.sqrt(numpy.maximum(spacing**2 - scan.spacing**2, 0)) / 2.355 / scan.spacing
    sigma[scan.spacing >= spacing] = 0
    ratio = spacing / scan.spacing
    shape = [int(n * a / b) for n, a, b in zip(scan.data.shape, scan.spacing, spacing)]

    def sample(values):
        return ndimage.affine_transform(ndimage.gaussian_filter(values, sigma), numpy.diag(ratio),
                                        offset=(ratio - 1) / 2, output_shape=shape, order=1,
                                        mode="constant", cval=0)
    return regridded(scan, sample(scan.data), sample(scan.mask.astype(numpy.float32)), spacing)


@change("smooth3", "seen", "smoothed by 3 mm FWHM")
def smoothed(scan):
    return replace(scan, data=ndimage.gaussian_filter(scan.data, 3 / 2.355 / scan.spacing))


@change("outlier", "seen", "16 bit, one voxel in 10000 at ten times the maximum")
def outliers(scan):
    data, random = scaled3000(scan), numpy.random.default_rng(5)
    data.ravel()[random.choice(data.size, max(1, int(1e-4 * data.size)), replace=False)] = 30000
    return short(scan, data)


@change("neg1000", "seen", "16 bit, offset of -1000")
def offset(scan):
    return short(scan, scaled3000(scan) - 1000)


@change("airneg", "seen", "16 bit, air at -1000")
def air_below(scan):
    return short(scan, numpy.where(head(scan), scaled3000(scan), -1000))


@change("deface", "seen", "face removed")
def defaced(scan):
    (back, front), (low, _) = scan.brain(1), scan.brain(2)
    sy, sz = scan.spacing[1:]
    frontal = scan.mask[:, front - int(8 / sy):front + 1, :].any((0, 1))
    y0, z0 = (front + back) / 2, low - 5 / sz
    y1, z1 = front + 10 / sy, numpy.where(frontal)[0][0]
    y, z = numpy.meshgrid(*map(numpy.arange, scan.data.shape[1:]), indexing="ij")
    cut = (y > y0) & (z < z0 + (y - y0) * (z1 - z0) / (y1 - y0))
    data = scan.data.copy()
    data[cut[None] & ~within(scan.mask, 5, scan.spacing)] = 0
    return replace(scan, data=data)


def stored(scan, codes):
    """Axes stored in another order; the affine keeps every voxel where it is."""
    orientations = nibabel.orientations
    way = orientations.ornt_transform(orientations.io_orientation(scan.affine),
                                      orientations.axcodes2ornt(codes))
    order = [int(numpy.where(way[:, 0] == k)[0][0]) for k in range(3)]
    return replace(scan, data=orientations.apply_orientation(scan.data, way),
                   mask=orientations.apply_orientation(scan.mask, way),
                   spacing=scan.spacing[order],
                   affine=scan.affine @ orientations.inv_ornt_aff(way, scan.data.shape))


change("PIR", "seen", "stored posterior-inferior-right", codes="PIR")(stored)


@change("grey16", "seen", "16 grey levels")
def few_levels(scan):
    step = numpy.percentile(scan.data[scan.mask], 99.5) * 1.1 / 15
    return replace(scan, data=numpy.clip(numpy.floor(scan.data / step), 0, 15), dtype=numpy.uint8)


@change("stripped", "seen", "brain only", kind="right-or-told")
def brain_only(scan):
    return replace(scan, data=scan.data * scan.mask)


@change("invert", "seen", "contrast inverted", kind="must-tell")
def inverted(scan):
    solid = head(scan)
    top = numpy.percentile(scan.data[solid], 99.5)
    return replace(scan, data=numpy.where(solid, numpy.clip(top - scan.data, 0, None),
                                          scan.data * 0.1))


@change("const", "seen", "one value everywhere", kind="must-tell")
def constant(scan):
    return replace(scan, data=numpy.full_like(scan.data, 100))


@change("noiseonly", "seen", "noise alone", kind="must-tell")
def noise_alone(scan):
    noise = numpy.random.default_rng(1).normal(0, 100, scan.data.shape)
    return replace(scan, data=numpy.abs(noise.astype(numpy.float32)))


@change("ct", "seen", "like computed tomography: bright skull, flat brain", kind="must-tell")
def tomography(scan):
    solid, tissue = head(scan), within(scan.mask, 1, scan.spacing)
    deep = ndimage.distance_transform_edt(solid, sampling=scan.spacing) > 4
    data = numpy.where(solid, 40, -1000).astype(numpy.float32)
    data[deep & ~tissue & (scan.data < 0.35 * white(scan))] = 1000
    data[scan.mask] = 40
    noise = numpy.random.default_rng(1).normal(0, 6, data.shape)
    return short(scan, ndimage.gaussian_filter(data, 0.5) + noise)


# Unseen while developing

@change("sag4", "unseen", "sagittal slices of 4 mm", spacing=(4, 0, 0))
@change("cor5", "unseen", "coronal slices of 5 mm", spacing=(0, 5, 0))
@change("iso1.5", "unseen", "voxels of 1.5 mm", spacing=(1.5, 1.5, 1.5))
@change("iso2.5", "unseen", "voxels of 2.5 mm", spacing=(2.5, 2.5, 2.5))
@change("iso5", "unseen", "voxels of 5 mm", kind="right-or-told", spacing=(5, 5, 5))
def averages(scan, spacing):
    return coarser(scan, numpy.array(spacing, float))


@change("up0.7", "unseen", "interpolated to 0.7 mm by cubic splines", mm=0.7)
@change("up0.3", "large", "interpolated to 0.3 mm: a large file", kind="right-or-told", mm=0.3)
def finer(scan, mm):
    spacing = numpy.full(3, mm)
    ratio = spacing / scan.spacing
    shape = [int(n / r) for n, r in zip(scan.data.shape, ratio)]
    fine = resliced(scan, numpy.diag(ratio), (ratio - 1) / 2, shape, order=3)
    data = numpy.clip(numpy.round(fine.data * (3000 / scan.data.max())), 0, None)
    return replace(regridded(scan, data, fine.mask, spacing), dtype=numpy.int16)


@change("bias60", "unseen", "shading of +-60 % by a random square polynomial")
def square_shading(scan):
    axes = [numpy.linspace(-1, 1, n, dtype=numpy.float32) for n in scan.data.shape]
    x, y, z = numpy.meshgrid(*axes, indexing="ij", sparse=True)
    c = numpy.random.default_rng(2024).normal(size=9).astype(numpy.float32)
    return shaded(scan, c[0] * x + c[1] * y + c[2] * z + c[3] * x * y + c[4] * y * z +
                  c[5] * z * x + c[6] * x * x + c[7] * y * y + c[8] * z * z, 0.6)


@change("frontlow", "unseen", "brighter in front and below, 0.67 to 1.6 times from end to end")
def front_low_shading(scan):
    y, z = ((numpy.arange(n, dtype=numpy.float32) - n / 2) * s
            for n, s in zip(scan.data.shape[1:], scan.spacing[1:]))
    return replace(scan, data=scan.data * numpy.exp((y[:, None] - z) / 180))


@change("coil", "unseen", "bright near a surface coil behind the head, fading by e in 130 mm")
def surface_coil(scan):
    place = [sum(scan.brain(k)) / 2 for k in range(3)]
    place[1] = extent(head(scan), 1)[0] - 20 / scan.spacing[1]
    x, y, z = numpy.meshgrid(*(((numpy.arange(n) - p) * s).astype(numpy.float32) for n, p, s in
                               zip(scan.data.shape, place, scan.spacing)),
                             indexing="ij", sparse=True)
    return replace(scan, data=scan.data * numpy.exp(-numpy.sqrt(x * x + y * y + z * z) / 130))


@change("gamma0.6", "unseen", "intensities to the power of 0.6", exponent=0.6)
@change("gamma1.6", "unseen", "intensities to the power of 1.6", exponent=1.6)
def power(scan, exponent):
    top = scan.data.max()
    return replace(scan, data=top * (numpy.clip(scan.data, 0, None) / top) ** exponent)


@change("wrap", "unseen", "field of view ends in the face; up to 20 mm fold in behind the head")
def folded(scan):
    back, front = extent(head(scan), 1)
    end = max(front - scan.voxels(20, 1), scan.brain(1)[1] + scan.voxels(3, 1)) + 1
    rest = scan.data[:, end:front + 1]
    n = rest.shape[1]
    lack = max(0, n - back)
    scan = padded(scan, [(0, 0), (lack, 0), (0, 0)])
    first = back + lack - n
    scan = cropped(scan, 1, first, end + lack)
    data = scan.data.copy()
    data[:, :n] += rest
    return replace(scan, data=data)


change("roll15", "unseen", "rolled by 15 degrees", degrees=15, axis=1, margin=20)(turned)
change("yaw25", "unseen", "yawed by 25 degrees", degrees=25, axis=2, margin=20)(turned)


@change("cuttop40", "unseen", "the upper 40 mm of the head are missing", kind="must-tell")
def top_missing(scan):
    return cropped(scan, 2, 0, extent(head(scan), 2)[1] + 1 - scan.voxels(40, 2))


@change("slab100", "unseen", "an axial slab of 100 mm out of the brain", kind="must-tell")
def slab(scan):
    first = int(sum(scan.brain(2)) / 2) - scan.voxels(50, 2)
    return cropped(scan, 2, first, first + scan.voxels(100, 2))


@change("noneck", "unseen", "nothing below the brain")
def no_neck(scan):
    return cropped(scan, 2, scan.brain(2)[0], scan.data.shape[2])


@change("ghost", "unseen", "a ghost of 10 % half the field of view away from front to back")
def ghost(scan):
    return replace(scan, data=scan.data + 0.1 * numpy.roll(scan.data, scan.data.shape[1] // 2, 1))


@change("stripes", "unseen", "oblique stripes of 8 % of white matter: a spike in k-space")
def stripes(scan):
    x, y, z = numpy.meshgrid(*map(numpy.arange, scan.data.shape), indexing="ij", sparse=True)
    wave = numpy.cos(2 * numpy.pi * (x / 13 + y / 17 + z / 29)).astype(numpy.float32)
    return replace(scan, data=numpy.abs(scan.data + 0.08 * white(scan) * wave))


@change("pepper", "unseen", "one voxel in 100 at zero or the maximum")
def salt_and_pepper(scan):
    random, data = numpy.random.default_rng(11), scan.data.copy()
    hits = random.random(data.shape) < 0.01
    data[hits] = numpy.where(random.random(hits.sum()) < 0.5, 0, data.max())
    return replace(scan, data=data)


@change("unit", "unseen", "floats from 0 to 1")
def unit(scan):
    return replace(scan, data=scan.data / scan.data.max())


@change("nanair", "unseen", "no numbers in the air")
def nan_air(scan):
    return replace(scan, data=numpy.where(head(scan), scan.data, numpy.nan))


@change("las0", "unseen", "stored left-anterior-superior, orientation not told", codes="LAS")
@change("ail0", "unseen", "stored anterior-inferior-left, orientation not told",
        kind="right-or-told", codes="AIL")
def unlabelled(scan, codes):
    return replace(stored(scan, codes), labelled=False)


@change("updown", "unseen", "upside down, orientation not told", kind="right-or-told")
def upside_down(scan):
    return replace(scan, data=scan.data[::-1, :, ::-1], mask=scan.mask[::-1, :, ::-1],
                   labelled=False)


@change("twoheads", "unseen", "two heads side by side", kind="must-tell")
def two_heads(scan):
    data, mask = (numpy.concatenate([v, v[::-1]]) for v in (scan.data, scan.mask))
    return replace(scan, data=data, mask=mask)


@change("small0.75", "unseen", "a head of 0.75 times the size", kind="right-or-told", factor=0.75)
@change("large1.15", "unseen", "a head of 1.15 times the size", kind="right-or-told", factor=1.15)
def resized(scan, factor):
    shape = [int(n * factor) for n in scan.data.shape]
    return resliced(scan, numpy.eye(3) / factor, numpy.full(3, (1 / factor - 1) / 2), shape)


@change("pedestal", "unseen", "a tenth of white matter added everywhere")
def pedestal(scan):
    return replace(scan, data=scan.data + 0.1 * white(scan))


@change("lownoise", "unseen", "measured in voxels of 2 mm with 5 % of noise, interpolated back")
def coarse_and_noisy(scan):
    low = rician(coarser(scan, numpy.maximum(2, 1.5 * scan.spacing)), 0.05, 17)
    ratio = scan.spacing / low.spacing
    back = ndimage.affine_transform(low.data, numpy.diag(ratio), offset=(ratio - 1) / 2,
                                    output_shape=scan.data.shape, order=1, mode="nearest")
    return replace(scan, data=back)


@change("zero", "unseen", "zero everywhere", kind="must-tell", value=0)
@change("nan", "unseen", "no number anywhere", kind="must-tell", value=numpy.nan)
def filled(scan, value):
    return replace(scan, data=numpy.full_like(scan.data, value))


@change("oneslice", "unseen", "one axial slice", kind="must-tell")
def one_slice(scan):
    middle = int(sum(scan.brain(2)) / 2)
    return cropped(scan, 2, middle, middle + 1)


# Files

def load(scan_path, mask_path):
    scan, mask = (nibabel.as_closest_canonical(nibabel.load(p)) for p in (scan_path, mask_path))
    if scan.shape != mask.shape:
        raise SystemExit(f"{mask_path}: not on the grid of {scan_path}")
    return Scan(numpy.asanyarray(scan.dataobj).astype(numpy.float32),
                numpy.asanyarray(mask.dataobj) > 0,
                numpy.array(scan.header.get_zooms()[:3], float), scan.affine.copy())


def write(path, scan, values, dtype):
    image = nibabel.Nifti1Image(numpy.ascontiguousarray(values, dtype=numpy.float32).astype(dtype),
                                scan.affine)
    code = 1 if scan.labelled else 0
    image.set_sform(scan.affine, code)
    image.set_qform(scan.affine, code)
    nibabel.save(image, path)


def make(folder, name, scan_path, mask_path, case):
    """Writes one case and returns its row of the table."""
    scan = CHANGES[case].function(load(scan_path, mask_path))
    paths = [str(folder / f"{name}__{case}{end}.nii") for end in ("", "_mask")]
    write(paths[0], scan, scan.data, scan.dtype)
    write(paths[1], scan, scan.mask, numpy.uint8)
    return [name, case, CHANGES[case].set, CHANGES[case].kind, *paths]


def write_table(path, rows):
    """Adds rows to the table in place of older ones for the same head and case."""
    table = {}
    if path.exists():
        with open(path, newline="") as file:
            table = {tuple(row[:2]): row for row in list(csv.reader(file, delimiter="\t"))[1:]}
    table.update({tuple(row[:2]): row for row in rows})
    with open(path, "w", newline="") as file:
        csv.writer(file, delimiter="\t", lineterminator="\n").writerows([COLUMNS, *table.values()])


def parse():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--list", action="store_true", help="list the changes and stop")
    parser.add_argument("--set", nargs="+", default=["seen", "unseen"],
                        help="sets to make: seen, unseen, large (default: seen unseen)")
    parser.add_argument("--cases", nargs="+", choices=CHANGES, metavar="NAME", help="only these")
    parser.add_argument("--jobs", type=int, default=1, help="processes at a time")
    parser.add_argument("folder", nargs="?", type=pathlib.Path)
    parser.add_argument("heads", nargs="*", metavar="NAME=SCAN,MASK")
    arguments = parser.parse_args()
    if arguments.list:
        for name, entry in CHANGES.items():
            print(f"{name:10} {entry.set:7} {entry.kind:14} {entry.text}")
        sys.exit()
    if not arguments.heads:
        parser.error("a folder and at least one NAME=SCAN,MASK are needed")
    return arguments


def main():
    arguments = parse()
    cases = arguments.cases or [c for c, entry in CHANGES.items() if entry.set in arguments.set]
    arguments.folder.mkdir(parents=True, exist_ok=True)
    rows = []
    with ProcessPoolExecutor(arguments.jobs) as pool:
        for text in arguments.heads:
            name, _, files = text.partition("=")
            scan, _, mask = files.partition(",")
            rows += [pool.submit(make, arguments.folder, name, scan, mask, case) for case in cases]
        write_table(arguments.folder / "cases.tsv", [row.result() for row in rows])


if __name__ == "__main__":
    main()
