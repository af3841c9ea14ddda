// The 3-D viewer of a scan's page: scan at reduced size, mask over it, pen and eraser for the mask.
// The page finds it as the global TavrelViewer.
import { Niivue, NVImage } from '@niivue/niivue'
import { LABEL, blockLabels, withChanges } from './mask.js'

const MASK_COLOURS = {
  //           outside, inside, mostly inside, mostly outside
  R: [0, 255, 255, 255],
  G: [0, 176, 176, 176],
  B: [0, 32, 32, 32],
  A: [0, 255, 255, 0],
  I: [0, 1, 2, 3]
}
const VIEWS = { all: 3, axial: 0, coronal: 1, sagittal: 2, render: 4 }

async function through(bytes, transform) {
  const stream = new Blob([bytes]).stream().pipeThrough(transform)
  return new Uint8Array(await new Response(stream).arrayBuffer())
}

class Viewer {
  #nv
  #file // of the mask, decompressed: header and voxels
  #grid // { size, factors, offset }
  #original // labels of the mask as it came, in the order of the file
  #order // for every voxel in the viewer's order, its place in the file's
  #shown // labels as they were after the last stroke, in the viewer's order
  #strokes = [] // what every stroke changed: { places, labels }
  #opacity = 0.45
  #visible = true

  /**
   * Shows a scan and a mask on a canvas.
   * @param {HTMLCanvasElement} canvas
   * @param {Uint8Array} preview  .nii.gz of the scan at reduced size
   * @param {Uint8Array} mask     .nii.gz of the mask, unsigned 8-bit
   * @param {{size: number[], factors: number[], offset: number}} grid  of the mask: its sizes, the
   *   voxels that one of the preview spans, where its voxels begin in the file
   * @param {{changed: function(): void, moved: function(string): void}} listener
   */
  static async open(canvas, preview, mask, grid, listener) {
    const viewer = new Viewer()
    await viewer.#start(canvas, preview, mask, grid, listener)
    return viewer
  }

  async #start(canvas, preview, mask, grid, listener) {
    this.#grid = grid
    const nv = (this.#nv = new Niivue({
      logLevel: 'silent',
      loadingText: '',
      dragAndDropEnabled: false,
      isRadiologicalConvention: true,
      sagittalNoseLeft: true,
      multiplanarShowRender: 1,
      multiplanarLayout: 2,
      multiplanarPadPixels: 6,
      crosshairColor: [0.35, 0.75, 1, 0.8],
      crosshairWidth: 0.4,
      show3Dcrosshair: true,
      backColor: [0, 0, 0, 1],
      fontColor: [0.75, 0.75, 0.75, 1],
      isForceMouseClickToVoxelCenters: true
    }))
    await nv.attachToCanvas(canvas)
    const image = await NVImage.new(await this.#arrayBuffer(preview), 'scan.nii', 'gray', 1)
    image.cal_min = 0
    image.cal_max = 255
    nv.addVolume(image)
    this.#file = await through(mask, new DecompressionStream('gzip'))
    this.#showMask(image)
    nv.onLocationChange = ({ mm, values }) => {
      const [x, y, z] = Array.from(mm, v => v.toFixed(1))
      listener.moved(`x ${x}, y ${y}, z ${z} mm, grey value ${values[0].value}`)
    }
    nv.onDrawingChanged = action => {
      if (action === 'draw') this.#noteStroke()
      listener.changed()
    }
    this.pen('off')
    nv.drawScene()
  }

  async #arrayBuffer(compressed) {
    return (await through(compressed, new DecompressionStream('gzip'))).buffer
  }

  get #voxels() {
    const { size, offset } = this.#grid
    return this.#file.subarray(offset, offset + size[0] * size[1] * size[2])
  }

  #showMask(image) {
    const nv = this.#nv
    this.#original = blockLabels(this.#voxels, this.#grid.size, this.#grid.factors)
    if (image.hdr.dims[1] * image.hdr.dims[2] * image.hdr.dims[3] !== this.#original.length) {
      throw new Error('The mask is not on the grid of the scan.')
    }
    this.#order = Viewer.#fileOrder(image)
    nv.setDrawColormap(MASK_COLOURS)
    nv.createEmptyDrawing()
    this.#shown = Uint8Array.from(this.#order, place => this.#original[place])
    this.#draw()
  }

  /** The viewer turns volumes to right, anterior, superior: where its voxels are in the file. */
  static #fileOrder(image) {
    const [, nx, ny, nz] = image.dimsRAS
    const step = image.img2RASstep
    const start = image.img2RASstart.reduce((sum, s) => sum + s, 0)
    const order = new Uint32Array(nx * ny * nz)
    for (let z = 0, v = 0; z < nz; z++) {
      for (let y = 0; y < ny; y++) {
        for (let x = 0; x < nx; x++, v++) order[v] = start + x * step[0] + y * step[1] + z * step[2]
      }
    }
    return order
  }

  #draw() {
    this.#nv.drawBitmap.set(this.#shown)
    this.#nv.setDrawOpacity(this.#visible ? this.#opacity : 0)
    this.#nv.refreshDrawing(true)
  }

  #noteStroke() {
    const now = this.#nv.drawBitmap
    const places = []
    for (let v = 0; v < now.length; v++) if (now[v] !== this.#shown[v]) places.push(v)
    if (places.length === 0) return
    this.#strokes.push({
      places: Uint32Array.from(places),
      labels: Uint8Array.from(places, v => this.#shown[v])
    })
    this.#shown.set(now)
  }

  /** Which cuts are shown: all, axial, coronal, sagittal or render. */
  view(name) {
    this.#nv.setSliceType(VIEWS[name])
  }

  /** Moves the cross by voxels to the patient's right, front and top. */
  move(x, y, z) {
    this.#nv.moveCrosshairInVox(x, y, z)
  }

  /** Turns the head in the 3-D view by degrees. */
  turn(azimuth, elevation) {
    const { renderAzimuth, renderElevation } = this.#nv.scene
    this.#nv.setRenderAzimuthElevation(renderAzimuth + azimuth, renderElevation + elevation)
  }

  overlay(visible, opacity) {
    this.#visible = visible
    this.#opacity = opacity
    this.#nv.setDrawOpacity(visible ? opacity : 0)
  }

  /** What the mouse does: 'off' moves the cross, 'draw' adds to the mask, 'erase' takes away. */
  pen(tool, size = 3) {
    this.#nv.setDrawingEnabled(tool !== 'off')
    this.#nv.opts.penSize = size
    this.#nv.setPenValue(tool === 'draw' ? LABEL.inside : LABEL.outside, false)
  }

  get strokes() {
    return this.#strokes.length
  }

  /** Takes back the last stroke. */
  undo() {
    const stroke = this.#strokes.pop()
    if (!stroke) return
    stroke.places.forEach((v, i) => {
      this.#shown[v] = stroke.labels[i]
    })
    this.#draw()
  }

  /** The mask as drawn, at full resolution, as a .nii.gz file with the header that it came with. */
  async maskFile() {
    const labels = new Uint8Array(this.#original.length)
    this.#shown.forEach((label, v) => {
      labels[this.#order[v]] = label
    })
    const { size, factors, offset } = this.#grid
    const file = this.#file.slice()
    file.set(withChanges(this.#voxels, size, factors, this.#original, labels), offset)
    return through(file, new CompressionStream('gzip'))
  }
}

globalThis.TavrelViewer = Viewer
