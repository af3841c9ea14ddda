// The page of one scan: review and viewer.

// ---- Review

const form = find('#review')
const comment = find('#comment')

function showRating() {
  const { rating, former, comment: words } = ratings.of(data)
  for (const radio of form.elements.rating) radio.checked = radio.value === rating
  if (document.activeElement !== comment) comment.value = words ?? ''
  if (former) announce(`The mask was rated ${former} before it was changed; rate it again.`)
}

function rate(rating) {
  ratings.set(data, { rating })
  showRating()
  announce(rating ? `Rated: ${rating}` : 'Rating taken back')
}

/** The neighbours in the order in which the index last showed the scans, else in the table's. */
function neighbours() {
  try {
    const order = JSON.parse(localStorage.getItem(`${ratings.key} order`))
    const here = decodeURIComponent(location.pathname.replace(/.*\//, ''))
    const place = order.findIndex(page => decodeURIComponent(page) === here)
    if (place >= 0) return { previous: order[place - 1], next: order[place + 1] }
  } catch {
    /* No index has been opened. */
  }
  return data
}

const go = page => {
  location.href = ratings.carriedTo(page)
}

for (const [id, page] of Object.entries({ index: 'index.html', ...neighbours() })) {
  const link = ['index', 'previous', 'next'].includes(id) && find(`#${id}`)
  if (!link || !page) continue
  link.hidden = false
  link.href = page
  link.addEventListener('click', event => {
    if (event.button !== 0 || event.ctrlKey || event.metaKey || event.shiftKey) return
    event.preventDefault()
    leave(() => go(page))
  })
}

form.addEventListener('submit', event => event.preventDefault())
form.addEventListener('change', event => {
  if (event.target.name === 'rating') rate(event.target.value)
  if (event.target === comment) ratings.set(data, { comment: oneLine(comment.value) })
})
comment.addEventListener('keydown', event => {
  if (event.key === 'Enter' || event.key === 'Escape') comment.blur()
})
find('#export').addEventListener('click', () => {
  const rows = Object.entries(ratings.all).map(([scan, row]) => ({ scan, ...row }))
  if (!(data.scan in ratings.all)) rows.push(data)
  download('tavrel_ratings.tsv', ratingsTable(rows), 'text/tab-separated-values')
})
addEventListener('storage', () => {
  ratings.load()
  showRating()
})
showRating()

find('#help').addEventListener('click', () => find('#keys').showModal())
find('#copy').addEventListener('click', async () => {
  const references = [...document.querySelectorAll('.literature li')].map(
    (li, i) => `${i + 1}. ${li.textContent}`
  )
  try {
    await navigator.clipboard.writeText(
      [find('#methods').textContent, '', ...references].join('\n')
    )
    announce('Copied.')
  } catch {
    announce('The browser does not let the page copy; select the text instead.')
  }
})

// ---- Viewer

let viewer = null // once it is open
let savedStrokes = 0

function bytesOf(id) {
  const text = atob(find(`#${id}`).textContent)
  return Uint8Array.from(text, c => c.charCodeAt(0))
}

async function runViewerCode() {
  const stream = new Blob([bytesOf('viewer-code')])
    .stream()
    .pipeThrough(new DecompressionStream('gzip'))
  const script = element('script')
  script.textContent = await new Response(stream).text()
  document.head.append(script)
}

function absent(reason) {
  find('#viewer').hidden = true
  find('#viewer-absence').textContent = reason
}

async function openViewer() {
  if (!document.createElement('canvas').getContext('webgl2')) {
    return absent('The viewer needs WebGL 2, which this browser does not offer.')
  }
  try {
    await runViewerCode()
    viewer = await globalThis.TavrelViewer.open(
      find('#canvas'),
      bytesOf('preview'),
      bytesOf('mask'),
      data.mask,
      {
        changed: showStrokes,
        moved: text => {
          find('#location').textContent = text
        }
      }
    )
    overlay()
    find('#viewer').dataset.ready = 'true'
  } catch (error) {
    absent(`The viewer cannot be opened: ${error.message}`)
  }
}

/** The viewer starts when it comes into sight, so that paging through scans costs nothing. */
function waitForSight() {
  if (!find('#viewer-code')) return
  find('#viewer').hidden = false
  new IntersectionObserver(
    (entries, observer) => {
      if (!entries.some(entry => entry.isIntersecting)) return
      observer.disconnect()
      openViewer()
    },
    { rootMargin: '200px' }
  ).observe(find('#viewer'))
}

function press(group, button) {
  for (const other of find(group).children)
    other.setAttribute('aria-pressed', String(other === button))
}

const overlay = () => viewer?.overlay(find('#overlay').checked, Number(find('#opacity').value))

function pen(tool) {
  press('#pens', find(`[data-pen=${tool}]`))
  viewer?.pen(tool, Number(find('#pen-size').value))
  if (tool !== 'off' && !find('#overlay').checked) find('#overlay').click()
}

function view(name) {
  press('#views', find(`[data-view=${name}]`))
  viewer?.view(name)
}

function showStrokes() {
  const count = viewer.strokes
  find('#undo').disabled = find('#save').disabled = count === 0
  find('#strokes').textContent =
    count === 0
      ? ''
      : `${count} ${count === 1 ? 'stroke' : 'strokes'}${count === savedStrokes ? ', saved' : ''}`
}

function undo() {
  viewer?.undo()
  if (viewer) showStrokes()
}

/** From now on, ratings are those of the mask in this file. */
async function rateFrom(file) {
  const digest = await globalThis.crypto?.subtle?.digest('SHA-256', file)
  if (!(data.scan in ratings.all)) ratings.set(data, {}) // what the table tells, of the old mask
  const hex = byte => byte.toString(16).padStart(2, '0')
  data.maskSha256 = digest ? Array.from(new Uint8Array(digest), hex).join('') : ''
  showRating()
}

async function saveMask() {
  if (!viewer?.strokes) return
  const file = await viewer.maskFile()
  download(data.mask.file, file, 'application/gzip')
  await rateFrom(file)
  savedStrokes = viewer.strokes
  showStrokes()
  announce(
    `Saved. Put ${data.mask.file} in place of the file of that name in the output folder ` +
      'and run the command again.'
  )
}

/** Asks before strokes that were not saved are lost. */
function leave(proceed) {
  if (
    !viewer ||
    viewer.strokes === savedStrokes ||
    confirm('The changes of the mask have not been saved. Leave all the same?')
  ) {
    savedStrokes = viewer?.strokes ?? 0
    proceed()
  }
}
addEventListener('beforeunload', event => {
  if (viewer && viewer.strokes !== savedStrokes) event.preventDefault()
})

find('#overlay').addEventListener('change', overlay)
find('#opacity').addEventListener('input', overlay)
find('#pen-size').addEventListener('input', () =>
  pen(find('#pens [aria-pressed=true]').dataset.pen)
)
find('#views').addEventListener(
  'click',
  event => event.target.dataset.view && view(event.target.dataset.view)
)
find('#pens').addEventListener(
  'click',
  event => event.target.dataset.pen && pen(event.target.dataset.pen)
)
find('#undo').addEventListener('click', undo)
find('#save').addEventListener('click', saveMask)
waitForSight()

// ---- Keys

function fade(step) {
  const slider = find('#opacity')
  slider.value = Number(slider.value) + step
  overlay()
}

const toggleRating = rating => rate(ratings.of(data).rating === rating ? '' : rating)
const follow = id => {
  if (!find(`#${id}`).hidden) find(`#${id}`).click()
}

const KEYS = {
  p: () => toggleRating('pass'),
  m: () => toggleRating('maybe'),
  f: () => toggleRating('fail'),
  c: () => comment.focus(),
  n: () => follow('next'),
  b: () => follow('previous'),
  i: () => follow('index'),
  '?': () => find('#keys').showModal(),
  o: () => find('#overlay').click(),
  '[': () => fade(-0.1),
  ']': () => fade(0.1),
  1: () => view('all'),
  2: () => view('axial'),
  3: () => view('coronal'),
  4: () => view('sagittal'),
  5: () => view('render'),
  d: () => pen('draw'),
  e: () => pen('erase'),
  Escape: () => pen('off'),
  u: undo,
  s: saveMask
}

/** Steps of the cross: right, up and through the cut on the screen, by view. */
const STEPS = {
  axial: { right: [-1, 0, 0], up: [0, 1, 0], through: [0, 0, 1] },
  coronal: { right: [-1, 0, 0], up: [0, 0, 1], through: [0, 1, 0] },
  sagittal: { right: [0, -1, 0], up: [0, 0, 1], through: [1, 0, 0] }
}
const ARROWS = {
  ArrowRight: ['right', 1],
  ArrowLeft: ['right', -1],
  ArrowUp: ['up', 1],
  ArrowDown: ['up', -1],
  PageUp: ['through', 1],
  PageDown: ['through', -1]
}

function moveCross(key) {
  const [direction, sign] = ARROWS[key]
  const name = find('#views [aria-pressed=true]').dataset.view
  if (name === 'render') {
    return viewer.turn(direction === 'right' ? sign * 5 : 0, direction === 'up' ? sign * 5 : 0)
  }
  viewer.move(...(STEPS[name] ?? STEPS.axial)[direction].map(step => step * sign))
}

// In the capturing phase, before the viewer's own keys.
addEventListener(
  'keydown',
  event => {
    if (event.ctrlKey && event.key === 'z' && viewer?.strokes) {
      event.preventDefault()
      return undo()
    }
    if (isTyping(event) || find('#keys').open) return
    const onCanvas = event.target === find('#canvas')
    const action =
      onCanvas && viewer && event.key in ARROWS ? () => moveCross(event.key) : KEYS[event.key]
    if (onCanvas) event.stopPropagation()
    if (!action) return
    event.preventDefault()
    action()
  },
  true
)
addEventListener(
  'keyup',
  event => event.target === find('#canvas') && event.stopPropagation(),
  true
)
