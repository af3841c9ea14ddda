// The index of all scans: table, filters, plots.

const rows = data.rows
const byScan = new Map(rows.map(row => [row.scan, row]))
const byField = new Map(rows.map(row => [toField(row.scan), row])) // as tables of ratings name them
const number = (value, digits) => (value === null ? '–' : value.toFixed(digits))

/** How much a scan deserves a look: failures first, then flags and volumes far from the others'. */
const doubt = row =>
  row.status === 'failed'
    ? Infinity
    : 3 * row.flags.length +
      Math.abs(row.z ?? 0) +
      (row.confidence === null ? 0 : 1 - row.confidence)

// ---- Table

/**
 * The columns: how a row is compared (numbers and texts, upwards) and what its cell holds. Columns
 * of numbers begin with the largest when they are first sorted by.
 */
const COLUMNS = [
  { id: 'picture', label: 'Outliers first', by: doubt, down: true, cell: pictureCell },
  { id: 'scan', label: 'Scan', by: row => row.scan, cell: nameCell },
  {
    id: 'volume',
    label: 'Volume',
    unit: 'mL',
    by: row => row.volume,
    cell: volumeCell,
    number: true
  },
  { id: 'w5', label: 'W5', by: row => row.w5, cell: row => number(row.w5, 2), number: true },
  {
    id: 'confidence',
    label: 'Confidence',
    by: row => row.confidence,
    cell: row => number(row.confidence, 2),
    number: true
  },
  {
    id: 'flags',
    label: 'Flags',
    by: row => row.flags.length + (row.status === 'failed' ? 100 : 0),
    down: true,
    cell: flagsCell
  },
  {
    id: 'seconds',
    label: 'Time',
    unit: 's',
    by: row => row.seconds,
    cell: row => number(row.seconds, 1),
    number: true
  },
  {
    id: 'memory',
    label: 'Memory',
    unit: 'MB',
    by: row => row.memory,
    cell: row => number(row.memory, 0),
    number: true
  },
  { id: 'rating', label: 'Rating', by: row => ratings.of(row).rating, cell: ratingCell },
  { id: 'comment', label: 'Comment', by: row => ratings.of(row).comment, cell: commentCell }
]

function pictureCell(row) {
  const picture = row.thumbnail
    ? element('img', {
        src: row.thumbnail,
        loading: 'lazy',
        decoding: 'async',
        alt: `Middle cuts of ${row.scan} with the contour of its mask`
      })
    : element('span', { class: 'no-picture' }, 'no picture')
  return element('a', { href: row.page, tabindex: -1, 'data-open': true }, picture)
}

function nameCell(row) {
  const rest = row.scan.startsWith(row.participant)
    ? row.scan.slice(row.participant.length).replace(/^_/, '')
    : row.scan
  const name = element('a', { href: row.page, 'data-open': true }, row.participant)
  const tags = row.manual ? [element('span', { class: 'chip manual' }, 'edited')] : []
  return element(
    'div',
    { class: 'name' },
    name,
    element('small', {}, rest.replaceAll('_', ' ')),
    ...tags
  )
}

function volumeCell(row) {
  if (row.z === null) return number(row.volume, 0)
  const far = Math.abs(row.z) >= 2.5 ? 'far' : ''
  return element(
    'div',
    {},
    number(row.volume, 0),
    element('small', { class: far }, `${row.z > 0 ? '+' : ''}${row.z.toFixed(1)} SD`)
  )
}

function flagsCell(row) {
  const chips = row.flags.map(([code, text]) =>
    element('span', { class: 'chip flag', title: text }, code)
  )
  if (row.status === 'failed')
    chips.unshift(
      element('span', { class: 'chip failed' }, 'not done'),
      element('small', {}, row.reason)
    )
  return element('div', { class: 'chips' }, ...chips)
}

function ratingCell(row) {
  const { rating, former } = ratings.of(row)
  const button = ([value, label]) =>
    element(
      'button',
      {
        type: 'button',
        class: value,
        'data-rate': value,
        'aria-pressed': String(value === rating),
        title: `${label} (${value[0]})`
      },
      label
    )
  return element(
    'div',
    { class: 'group ratings', role: 'group', 'aria-label': `Rating of ${row.scan}` },
    ...Object.entries(RATINGS).map(button),
    ...(former ? [element('small', {}, `was ${former}, of another mask`)] : [])
  )
}

function commentCell(row) {
  return element('input', {
    type: 'text',
    'data-comment': true,
    value: ratings.of(row).comment ?? '',
    'aria-label': `Comment on ${row.scan}`
  })
}

function tableRow(row) {
  const cells = COLUMNS.map(column =>
    element('td', { class: `${column.id}${column.number ? ' number' : ''}` }, column.cell(row))
  )
  return element(
    'tr',
    { 'data-scan': row.scan, tabindex: -1, class: `${ratings.of(row).rating} ${row.status}` },
    ...cells
  )
}

// ---- Order and filter

const sorting = { column: COLUMNS[0], down: true }
const filter = { words: '', kind: 'all' }
const KINDS = {
  all: ['All', () => true],
  failed: ['Not done', row => row.status === 'failed'],
  flagged: ['Flagged', row => row.flags.length > 0],
  edited: ['Edited', row => row.manual],
  unrated: ['Unrated', row => !ratings.of(row).rating],
  pass: ['Pass', row => ratings.of(row).rating === 'pass'],
  maybe: ['Maybe', row => ratings.of(row).rating === 'maybe'],
  fail: ['Fail', row => ratings.of(row).rating === 'fail']
}
const collator = new Intl.Collator('en', { numeric: true })
let visible = [] // rows that pass the filter, in order
let made = 0 // of them, how many are in the table
const CHUNK = 40

function compare(a, b) {
  if (a === b) return 0
  return typeof a === 'number' ? a - b : collator.compare(a, b)
}

/** Rows without a value come last either way; equal ones stay in the order of their names. */
function sorted(list) {
  const { by } = sorting.column
  const sign = sorting.down ? -1 : 1
  const isAbsent = value => value === null || value === undefined || value === ''
  return list
    .map(row => ({ row, value: by(row) }))
    .sort(
      (a, b) =>
        isAbsent(a.value) - isAbsent(b.value) ||
        (isAbsent(a.value) ? 0 : sign * compare(a.value, b.value)) ||
        collator.compare(a.row.scan, b.row.scan)
    )
    .map(({ row }) => row)
}

const searchText = row =>
  [row.scan, row.reason, ...row.flags.flat(), ratings.of(row).comment].join(' ').toLowerCase()

function matches(row) {
  if (!KINDS[filter.kind][1](row)) return false
  const text = filter.words && searchText(row)
  return !filter.words || filter.words.split(/\s+/).every(word => text.includes(word))
}

function refresh() {
  visible = sorted(rows.filter(matches))
  made = 0
  find('#scans tbody').replaceChildren()
  addChunk()
  showCounts()
  drawPlots()
  try {
    localStorage.setItem(`${ratings.key} order`, JSON.stringify(visible.map(row => row.page)))
  } catch {
    /* Pages then follow the order of the table. */
  }
}

/** Rows are made as they come into sight, so that thousands cost no more than a screenful. */
function addChunk(upTo = made + CHUNK) {
  find('#scans tbody').append(...visible.slice(made, upTo).map(tableRow))
  made = Math.min(upTo, visible.length)
}

function showCounts() {
  find('#shown').textContent =
    visible.length === rows.length
      ? `${rows.length} scans`
      : `${visible.length} of ${rows.length} scans`
  for (const [kind, [label, test]] of Object.entries(KINDS)) {
    const count = rows.filter(test).length
    const button = find(`[data-kind=${kind}]`)
    button.replaceChildren(label, element('span', { class: 'count' }, String(count)))
    button.setAttribute('aria-pressed', String(kind === filter.kind))
    button.hidden = count === 0 && kind !== 'all' && kind !== filter.kind
  }
}

function sortBy(column) {
  sorting.down = sorting.column === column ? !sorting.down : Boolean(column.down ?? column.number)
  sorting.column = column
  showOrder()
  refresh()
}

function showOrder() {
  for (const column of COLUMNS) {
    const order = column === sorting.column ? (sorting.down ? 'descending' : 'ascending') : 'none'
    find(`th.${column.id}`).setAttribute('aria-sort', order)
  }
}

function makeHead() {
  for (const column of COLUMNS) {
    const unit = column.unit ? [' ', element('small', {}, column.unit)] : []
    const button = element(
      'button',
      { type: 'button', click: () => sortBy(column) },
      column.label,
      ...unit
    )
    find('#scans thead tr').append(
      element(
        'th',
        { scope: 'col', class: `${column.id}${column.number ? ' number' : ''}` },
        button
      )
    )
  }
  for (const kind of Object.keys(KINDS)) {
    find('#kinds').append(
      element('button', {
        type: 'button',
        'data-kind': kind,
        click: () => {
          filter.kind = kind
          refresh()
        }
      })
    )
  }
}

// ---- Review

const rowOf = node => byScan.get(node.closest('tr')?.dataset.scan)

/** Shows a scan's rating where it stands, without moving its row. */
function update(row) {
  const old = find(`tr[data-scan="${CSS.escape(row.scan)}"]`)
  if (old) {
    const hadFocus = old.contains(document.activeElement)
    const replacement = tableRow(row)
    old.replaceWith(replacement)
    if (hadFocus) replacement.focus({ preventScroll: true })
  }
  showCounts()
  drawPlots()
}

function rate(row, rating) {
  ratings.set(row, { rating: ratings.of(row).rating === rating ? '' : rating })
  update(row)
  announce(`${row.scan}: ${ratings.of(row).rating || 'no rating'}`)
}

function importRatings(text) {
  const table = parseRatings(text)
  const known = table.filter(row => byField.has(row.scan))
  for (const { scan, rating, comment, mask_sha256: maskSha256 } of known) {
    const mask = maskSha256 ? { maskSha256 } : {}
    ratings.set(byField.get(scan), { rating, comment: comment ?? '', ...mask })
  }
  refresh()
  const unknown = table.length - known.length
  announce(
    `${known.length} ratings taken in${unknown ? `, ${unknown} of scans that are not here` : ''}.`
  )
}

function focusRow(step) {
  const current = document.activeElement.closest('#scans tbody tr')
  if (step > 0 && !current?.nextElementSibling) addChunk()
  const target = current
    ? step > 0
      ? current.nextElementSibling
      : current.previousElementSibling
    : find('#scans tbody tr')
  target?.focus()
  target?.scrollIntoView({ block: 'nearest' })
}

/** Goes to a scan's row, making it if it is not there yet. */
function goTo(row) {
  const place = visible.indexOf(row)
  if (place < 0) return open(row)
  if (place >= made) addChunk(place + CHUNK)
  const target = find(`tr[data-scan="${CSS.escape(row.scan)}"]`)
  target.scrollIntoView({ block: 'center' })
  target.focus()
}

const open = row => {
  location.href = ratings.carriedTo(row.page)
}

// ---- Plots

const FIGURES = [
  { id: 'volume', label: 'Volume', unit: 'mL', digits: 0 },
  { id: 'w5', label: 'W5', unit: '', digits: 2 },
  { id: 'confidence', label: 'Confidence', unit: '', digits: 2 },
  { id: 'seconds', label: 'Time', unit: 's', digits: 1 },
  { id: 'memory', label: 'Memory', unit: 'MB', digits: 0 }
]
const plots = FIGURES.filter(({ id }) => rows.some(row => row[id] !== null)).map(
  figure =>
    new Plot(figure, rows, {
      shownRows: () => new Set(visible),
      colour: row => ratings.of(row).rating || (row.flags.length ? 'flag' : 'dot'),
      go: goTo
    })
)

function drawPlots() {
  for (const plot of plots) plot.draw()
}

// ---- Events

find('#search').addEventListener('input', event => {
  filter.words = event.target.value.trim().toLowerCase()
  refresh()
})
find('#export').addEventListener('click', () =>
  download('tavrel_ratings.tsv', ratingsTable(rows), 'text/tab-separated-values')
)
find('#import').addEventListener('click', () => find('#import-file').click())
find('#import-file').addEventListener('change', async event => {
  const [file] = event.target.files
  try {
    if (file) importRatings(await file.text())
  } catch (error) {
    announce(`${file.name} is no table of ratings: ${error.message}.`)
  }
  event.target.value = ''
})
find('#help').addEventListener('click', () => find('#keys').showModal())

const body = find('#scans tbody')
body.addEventListener('click', event => {
  const row = rowOf(event.target)
  if (event.target.dataset.rate) return rate(row, event.target.dataset.rate)
  const isPlain = event.button === 0 && !event.ctrlKey && !event.metaKey && !event.shiftKey
  if (event.target.closest('[data-open]') && isPlain) {
    event.preventDefault()
    return open(row)
  }
  if (!event.target.closest('a, button, input')) event.target.closest('tr').focus()
})
body.addEventListener('change', event => {
  if ('comment' in event.target.dataset)
    ratings.set(rowOf(event.target), { comment: oneLine(event.target.value) })
})

const KEYS = {
  ArrowDown: () => focusRow(1),
  ArrowUp: () => focusRow(-1),
  j: () => focusRow(1),
  k: () => focusRow(-1),
  '/': () => find('#search').focus(),
  '?': () => find('#keys').showModal()
}
const ROW_KEYS = {
  Enter: open,
  p: row => rate(row, 'pass'),
  m: row => rate(row, 'maybe'),
  f: row => rate(row, 'fail'),
  c: row => find(`tr[data-scan="${CSS.escape(row.scan)}"] [data-comment]`).focus()
}

addEventListener('keydown', event => {
  const { target, key } = event
  if (isTyping(event)) {
    if (key === 'Escape' || (key === 'Enter' && 'comment' in target.dataset))
      (target.closest('tr') ?? target).focus()
    if (key === 'Escape') target.blur()
    return
  }
  if (find('#keys').open || target.matches('canvas')) return
  const row = rowOf(target)
  const action =
    row && key in ROW_KEYS && !(key === 'Enter' && !target.matches('tr'))
      ? () => ROW_KEYS[key](row)
      : KEYS[key]
  if (!action) return
  event.preventDefault()
  action()
})

/** Ratings given on pages of scans, in other tabs or before this one came back to sight. */
function reload() {
  ratings.load()
  ratings.takeCarried()
  refresh()
}
addEventListener('storage', event => event.key === ratings.key && reload())
addEventListener('pageshow', event => event.persisted && reload())
addEventListener('hashchange', reload)
addEventListener('resize', drawPlots)
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', drawPlots)
addEventListener('beforeprint', () => addChunk(visible.length))
new IntersectionObserver(
  entries => {
    if (entries.some(entry => entry.isIntersecting)) addChunk()
  },
  { rootMargin: '1000px' }
).observe(find('#more'))

makeHead()
find('#plots').append(...plots.map(plot => plot.node))
showOrder()
refresh()
