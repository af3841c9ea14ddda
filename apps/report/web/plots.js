// Plots of the index: how the figures of the scans are distributed. Runs before index.js.

function quantile(values, q) {
  const at = (values.length - 1) * q
  const low = Math.floor(at)
  return values[low] + (values[Math.min(low + 1, values.length - 1)] - values[low]) * (at - low)
}

/** A distribution as heaps of dots, one a scan, on a canvas that follows the mouse and the keys. */
class Plot {
  /**
   * @param figure  { id, label, unit, digits } of what is plotted
   * @param rows    all scans; those whose figure is null are left out
   * @param hooks   { shownRows() -> Set, colour(row) -> name of a CSS property, go(row) }
   */
  constructor(figure, rows, hooks) {
    this.figure = figure
    this.hooks = hooks
    this.points = rows
      .filter(row => row[figure.id] !== null)
      .sort((a, b) => a[figure.id] - b[figure.id])
    this.values = this.points.map(row => row[figure.id])
    this.chosen = -1
    this.tip = element('div', { class: 'tip', hidden: true })
    this.canvas = element('canvas', {
      tabindex: 0,
      role: 'img',
      'aria-label': this.description(),
      mousemove: event => this.choose(this.nearest(event)),
      mouseleave: () => this.choose(-1),
      click: event => this.go(this.nearest(event)),
      keydown: event => this.key(event),
      blur: () => this.choose(-1)
    })
    const caption = element(
      'figcaption',
      {},
      element('b', {}, figure.label),
      element('small', {}, this.summary())
    )
    this.node = element('figure', { class: 'plot' }, caption, this.canvas, this.tip)
  }

  format(value) {
    return value.toFixed(this.figure.digits)
  }

  summary() {
    return `median ${this.format(quantile(this.values, 0.5))} ${this.figure.unit}`
  }

  description() {
    const [low, middle, high] = [0.25, 0.5, 0.75].map(q => this.format(quantile(this.values, q)))
    const { label, unit } = this.figure
    const [least, most] = [this.values[0], this.values.at(-1)].map(v => this.format(v))
    return (
      `${label} of ${this.points.length} scans: from ${least} to ${most} ${unit}, median ${middle}, ` +
      `middle half ${low} to ${high}. Arrow keys go from point to point.`
    )
  }

  /** Where the dots lie, in pixels: heaps of equal values, squeezed where they would be too high. */
  layOut() {
    const { clientWidth: width, clientHeight: height } = this.canvas
    const margin = 10
    const [first, last] = [this.values[0], this.values.at(-1)]
    const span = last - first
    this.radius = this.points.length > 1000 ? 2 : this.points.length > 200 ? 2.5 : 3.5
    const x = value => (span ? margin + ((value - first) / span) * (width - 2 * margin) : width / 2)
    const heaps = new Map()
    const bin = 2 * this.radius
    this.places = this.values.map(value => {
      const column = Math.round(x(value) / bin)
      const level = heaps.get(column) ?? 0
      heaps.set(column, level + 1)
      return { x: x(value), level }
    })
    const floor = height - 18
    const step = Math.min(bin, (floor - 2 * this.radius) / Math.max(...heaps.values()))
    for (const place of this.places) place.y = floor - this.radius - place.level * step
    return { width, height, floor, x }
  }

  draw() {
    const scale = devicePixelRatio
    const { width, height, floor, x } = this.layOut()
    this.canvas.width = width * scale
    this.canvas.height = height * scale
    const pen = this.canvas.getContext('2d')
    pen.scale(scale, scale)
    const style = getComputedStyle(document.documentElement)
    const colours = {}
    const colour = name => (colours[name] ??= style.getPropertyValue(`--${name}`))
    this.drawAxis(pen, colour, { width, height, floor, x })
    this.drawDots(pen, colour)
  }

  /** The axis with its ends, thick where the middle half of the scans lies. */
  drawAxis(pen, colour, { width, height, floor, x }) {
    const [least, low, high, most] = [0, 0.25, 0.75, 1].map(q => quantile(this.values, q))
    pen.fillStyle = colour('line')
    pen.fillRect(0, floor, width, 1)
    pen.fillRect(x(low), floor - 1, Math.max(1, x(high) - x(low)), 3)
    pen.fillStyle = colour('muted')
    pen.font = '11px system-ui, sans-serif'
    pen.textBaseline = 'bottom'
    pen.fillText(this.format(least), 2, height)
    pen.textAlign = 'right'
    if (most !== least) pen.fillText(this.format(most), width - 2, height)
  }

  drawDots(pen, colour) {
    const shown = this.hooks.shownRows()
    this.points.forEach((row, i) => {
      pen.globalAlpha = shown.has(row) ? 0.85 : 0.12
      pen.fillStyle = colour(this.hooks.colour(row))
      this.dot(pen, i, this.radius)
    })
    pen.globalAlpha = 1
    pen.fillStyle = colour('text')
    if (this.chosen >= 0) this.dot(pen, this.chosen, this.radius + 2)
  }

  dot(pen, i, radius) {
    pen.beginPath()
    pen.arc(this.places[i].x, this.places[i].y, radius, 0, 2 * Math.PI)
    pen.fill()
  }

  /** The dot under the mouse, or -1. */
  nearest(event) {
    const reach = 8
    let best = -1
    let least = reach * reach
    this.places.forEach(({ x, y }, i) => {
      const distance = (x - event.offsetX) ** 2 + (y - event.offsetY) ** 2
      if (distance < least) [best, least] = [i, distance]
    })
    return best
  }

  choose(i) {
    if (i === this.chosen) return
    this.chosen = i
    this.draw()
    this.tip.hidden = i < 0
    this.canvas.classList.toggle('pointing', i >= 0)
    if (i < 0) return
    const row = this.points[i]
    this.tip.textContent = `${row.scan}: ${this.format(row[this.figure.id])} ${this.figure.unit}`
    const rightmost = this.canvas.clientWidth - this.tip.offsetWidth
    this.tip.style.left = `${Math.min(this.places[i].x, rightmost)}px`
  }

  go(i) {
    if (i >= 0) this.hooks.go(this.points[i])
  }

  key(event) {
    const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key]
    if (step) {
      event.preventDefault()
      this.choose(Math.max(0, Math.min(this.points.length - 1, this.chosen + step)))
      announce(this.tip.textContent)
    }
    if (event.key === 'Enter') this.go(this.chosen)
  }
}
