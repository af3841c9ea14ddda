// A mask at full resolution and its reduced picture, which is what one draws on.
//
// Voxel (x, y, z) of the reduced grid stands for a block of the mask. A block that is not all in or
// all out has a label of its own, so that drawing over it is seen to have changed it, and blocks
// that nobody has drawn on keep every voxel.

export const LABEL = { outside: 0, inside: 1, mostlyInside: 2, mostlyOutside: 3 }

/** Sizes of the reduced grid. */
export const reducedSize = (size, factors) => size.map((n, d) => Math.ceil(n / factors[d]))

/** Calls visit(block, first, count) for each run of voxels along x that lies in one block. */
function forEachRun(size, factors, visit) {
  const [nx, ny] = reducedSize(size, factors)
  const [fx, fy, fz] = factors
  for (let z = 0, row = 0; z < size[2]; z++) {
    for (let y = 0; y < size[1]; y++, row += size[0]) {
      const blocks = (Math.floor(z / fz) * ny + Math.floor(y / fy)) * nx
      for (let x = 0; x < nx; x++) visit(blocks + x, row + x * fx, Math.min(fx, size[0] - x * fx))
    }
  }
}

/** The label of every block of a mask (Uint8Array, above 0 inside, x fastest). */
export function blockLabels(mask, size, factors) {
  const [nx, ny, nz] = reducedSize(size, factors)
  const inside = new Uint32Array(nx * ny * nz)
  const all = new Uint32Array(inside.length)
  forEachRun(size, factors, (block, first, count) => {
    all[block] += count
    for (let v = first; v < first + count; v++) if (mask[v] > 0) inside[block]++
  })
  return Uint8Array.from(inside, (n, b) =>
    n === 0
      ? LABEL.outside
      : n === all[b]
        ? LABEL.inside
        : 2 * n >= all[b]
          ? LABEL.mostlyInside
          : LABEL.mostlyOutside
  )
}

/** The mask with the blocks whose label has changed set as a whole; the rest stays as it was. */
export function withChanges(mask, size, factors, before, after) {
  const result = mask.slice()
  const inside = mask.reduce((most, v) => Math.max(most, v), 0) || 1
  forEachRun(size, factors, (block, first, count) => {
    if (before[block] !== after[block])
      result.fill(after[block] === LABEL.inside ? inside : 0, first, first + count)
  })
  return result
}
