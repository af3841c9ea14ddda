// What the index and the pages share: ratings and their files. Runs before index.js or scan.js.
'use strict'

const find = (selector, root = document) => root.querySelector(selector)
const data = JSON.parse(find('#data').textContent)
const RATINGS = { pass: 'Pass', maybe: 'Maybe', fail: 'Fail' }

/**
 * An element. Attributes that are functions become listeners; strings among the children become
 * text, so that nothing in a name is ever taken for HTML.
 */
function element(tag, attributes = {}, ...children) {
  const result = document.createElement(tag)
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === 'function') result.addEventListener(name, value)
    else if (value !== false && value !== null)
      result.setAttribute(name, value === true ? '' : value)
  }
  result.append(...children)
  return result
}

/** Says something to people who see the page and to those who hear it. */
function announce(text) {
  find('#status').textContent = text
}

function download(name, content, type) {
  const url = URL.createObjectURL(new Blob([content], { type }))
  element('a', { href: url, download: name }).click()
  setTimeout(() => URL.revokeObjectURL(url), 60000)
}

/**
 * The ratings given in this browser, by scan: { participant, session, rating, comment, maskSha256, time },
 * with the checksum of the mask that was rated.
 */
const ratings = {
  // The browser keeps one store for all local pages: a folder's ratings are its own.
  key: `tavrel-ratings ${location.pathname.replace(/[^/]*$/, '')} ${data.cohort}`,
  all: {},

  load() {
    try {
      Object.assign(this.all, JSON.parse(localStorage.getItem(this.key) ?? '{}'))
    } catch {
      /* Without a store, or with a damaged one, ratings last as long as the page. */
    }
  },

  save() {
    try {
      localStorage.setItem(this.key, JSON.stringify(this.all))
    } catch {
      announce('This browser keeps no ratings; export them before you leave the page.')
    }
  },

  /**
   * The rating of a scan: given here, else what its row says. One that was given to another mask is
   * not its rating, but `former`.
   */
  of(row) {
    const given = this.all[row.scan] ?? row
    const { rating, former, comment } = given
    const isFormer = rating && given.maskSha256 && given.maskSha256 !== row.maskSha256
    return isFormer ? { rating: '', former: rating, comment } : { rating, former, comment }
  },

  set(row, change) {
    this.load()
    const { participant, session, maskSha256 } = row
    const { rating, former, comment } = this.of(row)
    const kept = { participant, session, rating, comment, maskSha256 }
    if (!('rating' in change)) kept.former = former // asked for until the mask is rated
    this.all[row.scan] = { ...kept, ...change, time: Date.now() }
    this.save()
  },

  merge(others) {
    for (const [scan, other] of Object.entries(others)) {
      if (!(this.all[scan]?.time >= other.time)) this.all[scan] = other
    }
    this.save()
  },

  /**
   * The address of another page with the ratings in its fragment: some browsers give every local
   * page a store of its own, where ratings have to be handed over.
   */
  carriedTo(page) {
    const carried = Object.keys(this.all).length
      ? '#ratings=' + encodeURIComponent(JSON.stringify(this.all))
      : ''
    return page + carried
  },

  takeCarried() {
    const text = /^#ratings=(.*)/.exec(location.hash)?.[1]
    if (text === undefined) return
    try {
      this.merge(JSON.parse(decodeURIComponent(text)))
    } catch {
      /* Not written by us. */
    }
    history.replaceState(null, '', location.pathname + location.search)
  }
}
ratings.load()
ratings.takeCarried()

/** A value of a table: absent ones are n/a, control characters become \x and two digits. */
const toField = text =>
  text
    ? text.replace(/[\x00-\x1f\x7f]/g, c => `\\x${c.charCodeAt(0).toString(16).padStart(2, '0')}`)
    : 'n/a'
const fromField = text => (text === 'n/a' ? '' : text)
const oneLine = text => text.trim().replace(/\s+/g, ' ')

const RATING_COLUMNS = ['participant_id', 'session_id', 'scan', 'rating', 'comment', 'mask_sha256']

/** The ratings of some rows as a table; rows without any are left out. */
function ratingsTable(rows) {
  const lines = [RATING_COLUMNS.join('\t')]
  for (const row of rows) {
    const { rating, comment } = ratings.of(row)
    if (rating || comment) {
      const fields = [row.participant, row.session, row.scan, rating, comment, row.maskSha256]
      lines.push(fields.map(toField).join('\t'))
    }
  }
  return lines.join('\n') + '\n'
}

/** The rows of such a table as objects. Throws an Error that says what is wrong with it. */
function parseRatings(text) {
  const [head, ...lines] = text
    .replace(/^\uFEFF/, '')
    .split(/\r?\n/)
    .filter(line => line !== '')
  const names = (head ?? '').split('\t')
  if (!names.includes('scan') || !names.includes('rating'))
    throw new Error('it has no columns "scan" and "rating"')
  return lines.map(line => {
    const fields = line.split('\t')
    const row = Object.fromEntries(names.map((name, i) => [name, fromField(fields[i] ?? '')]))
    if (row.rating && !(row.rating in RATINGS)) throw new Error(`"${row.rating}" is no rating`)
    return row
  })
}

/** Whether a key is meant for a field that the user types into, or belongs to the browser. */
const isTyping = event =>
  event.ctrlKey ||
  event.metaKey ||
  event.altKey ||
  event.target.matches('input[type=text], input[type=search], textarea, select')
