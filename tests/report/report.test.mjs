// The report in a browser, as a reviewer uses it. TAVREL_BIDS strips a scan of NIFTI_PHANTOM; CHROMIUM
// is driven by playwright-core of BROWSER_PACKAGES.
import assert from 'node:assert/strict'
import { execFileSync, spawnSync } from 'node:child_process'
import * as fs from 'node:fs'
import { createRequire } from 'node:module'
import { tmpdir } from 'node:os'
import { join } from 'node:path'
import { after, before, test } from 'node:test'
import { pathToFileURL } from 'node:url'
import { gunzipSync } from 'node:zlib'

const { BROWSER_PACKAGES, CHROMIUM, NIFTI_PHANTOM, TAVREL_BIDS } = process.env
const require = createRequire(join(BROWSER_PACKAGES, 'package.json'))
const { chromium } = require('playwright-core')
const folder = fs.mkdtempSync(join(tmpdir(), 'tavrel-report-'))
const [raw, stripped] = [join(folder, 'raw'), join(folder, 'stripped')]
const EVIL = "sub-0003_acq-<img src=x onerror=document.title='hurt'>\"'&"
const EVIL_COMMENT = "</script><script>document.title = 'hurt'</script>"
const MASK_FILE = 'sub-0001_desc-brain_mask.nii.gz'
let browser, out, mask

const run = (output, level, status) =>
  assert.equal(spawnSync(TAVREL_BIDS, [raw, output, level]).status, status)

/** An output folder with many scans: the one that was stripped, and copies with other figures. */
function makeOutput(count) {
  const output = join(folder, `out-${count}`)
  fs.cpSync(stripped, output, { recursive: true })
  const first = join(stripped, 'sub-0001', 'anat', MASK_FILE)
  const record = JSON.parse(fs.readFileSync(first.replace('nii.gz', 'json')))
  mask = record.Tavrel.MaskSha256
  for (let i = 1; i <= count; i++) {
    const participant = `sub-${String(i).padStart(4, '0')}`
    const scan = i === 3 ? EVIL : participant
    const Source = `${participant}/anat/${scan}_T1w.nii`
    const Flags = i % 10 === 3 ? [{ Code: 'leak', Text: 'seems to leak out of the skull' }] : []
    Object.assign(record.Tavrel, { Source, Flags, VolumeMl: 1400 + 180 * Math.sin(13 * i) })
    const copy = join(output, participant, 'anat', `${scan}_desc-brain_mask`)
    fs.mkdirSync(join(output, participant, 'anat'), { recursive: true })
    if (i > 1) fs.linkSync(first, `${copy}.nii.gz`)
    fs.writeFileSync(`${copy}.json`, JSON.stringify(record))
  }
  fs.writeFileSync(
    join(output, 'logs', 'unfinished', 'note'),
    '{"Source": "sub-0002/anat/sub-0002_T1w.nii", "Reason": "is truncated"}'
  )
  const ratings = `scan\trating\tcomment\n${EVIL}\tmaybe\t${EVIL_COMMENT}\n`
  fs.writeFileSync(join(output, 'tavrel_ratings.tsv'), ratings)
  run(output, 'group', 1)
  return output
}

before(async () => {
  fs.mkdirSync(join(raw, 'sub-0001', 'anat'), { recursive: true })
  fs.writeFileSync(join(raw, 'dataset_description.json'), '{"Name": "<heads> & \\"friends\\""}')
  const scan = join(raw, 'sub-0001', 'anat', 'sub-0001_T1w.nii')
  execFileSync(NIFTI_PHANTOM, ['136', '150', '60', scan])
  run(stripped, 'participant', 0)
  out = makeOutput(40)
  browser = await chromium.launch({
    executablePath: CHROMIUM,
    args: ['--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--disable-dev-shm-usage']
  })
})
after(async () => {
  await browser?.close()
  fs.rmSync(folder, { recursive: true })
})

/** Runs a test in a fresh browser; errors on the page and requests that leave the disk fail it. */
async function withPage(name, use, options = {}) {
  const context = await browser.newContext({ viewport: { width: 1150, height: 720 }, ...options })
  const page = await context.newPage()
  const wrong = []
  const isLocal = request => /^(file|data|blob):/.test(request.url())
  page.on('pageerror', error => wrong.push(error.message))
  page.on('console', message => message.type() === 'error' && wrong.push(message.text()))
  page.on('request', request => isLocal(request) || wrong.push(request.url()))
  await page.goto(pathToFileURL(join(out, name)).href)
  await use(page)
  assert.deepEqual(wrong, [])
  await context.close()
}

const names = page => page.$$eval('#scans tbody tr', rows => rows.map(row => row.dataset.scan))
const volumes = page =>
  page.$$eval('#scans td.volume', cells => cells.map(cell => parseFloat(cell.textContent)))

/** What a click on a button that saves a file gives. */
async function saved(page, selector) {
  const [download] = await Promise.all([page.waitForEvent('download'), page.click(selector)])
  return { name: download.suggestedFilename(), bytes: fs.readFileSync(await download.path()) }
}

test('the index sorts, filters, plots and shows names as they are', () =>
  withPage('index.html', async page => {
    const first = await names(page)
    assert.equal(first.length, 40)
    assert.equal(first[0], 'sub-0002', 'what failed comes first')
    assert.ok(first.indexOf('sub-0013') < first.indexOf('sub-0001'), 'then what is flagged')

    await page.click('th.volume button')
    const falling = (await volumes(page)).slice(0, 39)
    assert.deepEqual(
      falling,
      falling.toSorted((a, b) => b - a)
    )
    assert.equal((await names(page)).at(-1), 'sub-0002', 'what has no volume comes last')
    await page.click('th.volume button')
    assert.equal(await page.getAttribute('th.volume', 'aria-sort'), 'ascending')
    assert.deepEqual((await volumes(page)).slice(0, 39), falling.reverse())
    await page.locator('.plot canvas').first().focus()
    await page.keyboard.press('ArrowRight')
    await page.keyboard.press('Enter')
    const least = await page.evaluate(() => document.activeElement.closest('tr').dataset.scan)
    assert.equal(least, (await names(page))[0], 'a dot of a plot leads to its scan')

    await page.click('[data-kind=flagged]')
    assert.deepEqual((await names(page)).sort(), [EVIL, 'sub-0013', 'sub-0023', 'sub-0033'].sort())
    assert.notEqual(await page.title(), 'hurt')
    await page.fill('#search', '0023 leak')
    assert.deepEqual(await names(page), ['sub-0023'])
    await page.fill('#search', '')
    await page.click('[data-kind=all]')
    await page.locator('tr[data-scan="sub-0001"] img').scrollIntoViewIfNeeded()
    await page.waitForFunction(
      () => document.querySelector('tr[data-scan="sub-0001"] img').naturalWidth > 100
    )
  }))

test('ratings are kept, carried between pages, exported and imported', async () => {
  let table
  await withPage('index.html', async page => {
    await page.click('th.scan button')
    await page.focus('tr[data-scan="sub-0001"]')
    await page.keyboard.press('p')
    await page.click('tr[data-scan="sub-0004"] .name a')
    await page.waitForURL(/sub-0004\.html$/) // nothing of what is carried stays in the address
    for (const key of ['f', 'c']) await page.keyboard.press(key)
    await page.keyboard.type('leaks at the vertex\n')
    await page.keyboard.press('b')
    await page.waitForURL(/sub-0003_acq/)
    assert.equal(await page.isChecked('[value=maybe]'), true, 'the rating of the table')
    assert.equal(await page.inputValue('#comment'), EVIL_COMMENT)
    assert.notEqual(await page.title(), 'hurt')
    // As in a browser that gives every local page a store of its own.
    await page.evaluate(() => localStorage.clear())
    await page.keyboard.press('i')
    await page.waitForSelector('tr.fail')
    const { name, bytes } = await saved(page, '#export')
    assert.equal(name, 'tavrel_ratings.tsv')
    table = bytes.toString()
  })
  assert.deepEqual(table.split('\n'), [
    'participant_id\tsession_id\tscan\trating\tcomment\tmask_sha256',
    `sub-0001\tn/a\tsub-0001\tpass\tn/a\t${mask}`,
    `sub-0003\tn/a\t${EVIL}\tmaybe\t${EVIL_COMMENT}\t${mask}`,
    `sub-0004\tn/a\tsub-0004\tfail\tleaks at the vertex\t${mask}`,
    ''
  ])

  await withPage('index.html', async page => {
    const take = buffer =>
      page.setInputFiles('#import-file', { name: 'ratings.tsv', mimeType: '', buffer })
    const other = table.replace('sub-0004\tfail\tleaks', 'sub-0004\tmaybe\tbell \x07')
    await take(Buffer.from(other.replace(/\n/g, '\r\n')))
    await page.waitForSelector('tr[data-scan="sub-0004"].maybe')
    const { bytes } = await saved(page, '#export')
    assert.equal(bytes.toString(), other.replace('\x07', '\\x07'))
    await take(Buffer.from('scan\trating\nsub-0001\texcellent\n'))
    await page.waitForSelector('#status:text(\'"excellent" is no rating\')', { state: 'attached' })
    await page.reload()
    await page.waitForSelector('tr[data-scan="sub-0001"].pass')
    await take(Buffer.from(`scan\trating\tmask_sha256\nsub-0001\tpass\t${'1'.repeat(64)}\n`))
    await page.waitForSelector('tr[data-scan="sub-0001"]:not(.pass)')
    assert.match(await page.textContent('tr[data-scan="sub-0001"] .rating'), /was pass, of another/)
  })
})

const withViewer = use =>
  withPage('sub-0001.html', async page => {
    await page.locator('#canvas').scrollIntoViewIfNeeded()
    await page.waitForSelector('#viewer[data-ready]', { timeout: 90000 })
    await page.locator('.stage').evaluate(stage => stage.scrollIntoView({ block: 'center' }))
    await use(page, await page.locator('#canvas').boundingBox())
  })

/** Pixels of the viewer in the colour of the mask, in a strong one, and with any picture at all. */
async function colours(page) {
  await page.waitForTimeout(300)
  const shot = (await page.locator('.stage').screenshot()).toString('base64')
  return page.evaluate(async shot => {
    const image = new Image()
    image.src = `data:image/png;base64,${shot}`
    await image.decode()
    const canvas = new OffscreenCanvas(image.width, image.height).getContext('2d')
    canvas.drawImage(image, 0, 0)
    const { data } = canvas.getImageData(0, 0, image.width, image.height)
    const counts = { mask: 0, strong: 0, picture: 0 }
    for (let i = 0; i < data.length; i += 4) {
      if (data[i] - data[i + 2] > 30) counts.mask++
      if (data[i] - data[i + 2] > 150) counts.strong++
      if (data[i] > 40) counts.picture++
    }
    return counts
  }, shot)
}

test('the viewer shows the mask, hides it and fades it', () =>
  withViewer(async page => {
    const on = await colours(page)
    assert.ok(on.mask > 10000 && on.picture > on.mask, JSON.stringify(on))
    assert.equal(on.strong, 0)
    await page.keyboard.press('o')
    const off = await colours(page)
    assert.ok(off.mask < 20 && off.picture > 0.8 * on.picture, JSON.stringify(off))
    await page.keyboard.press('o')
    await page.fill('#opacity', '1')
    const full = await colours(page)
    assert.ok(full.strong > 0.7 * on.mask, JSON.stringify(full))
  }))

/** A NIfTI-1 file: header, voxels, and the indices of a voxel and its place in millimetres. */
function readMask(bytes) {
  const file = gunzipSync(bytes)
  const [nx, ny] = [42, 44].map(at => file.readInt16LE(at))
  const rows = [280, 296, 312].map(at => [0, 4, 8, 12].map(c => file.readFloatLE(at + c)))
  const indices = v => [v % nx, Math.floor(v / nx) % ny, Math.floor(v / nx / ny)]
  const place = v => {
    const [x, y, z] = indices(v)
    return rows.map(([a, b, c, d]) => a * x + b * y + c * z + d)
  }
  return { header: file.subarray(0, 352), voxels: file.subarray(352), indices, place }
}

const changes = (before, after) =>
  [...before.voxels.keys()].filter(v => before.voxels[v] !== after.voxels[v])

async function savedMask(page) {
  const { name, bytes } = await saved(page, '#save')
  assert.equal(name, MASK_FILE)
  return readMask(bytes)
}

test('strokes change the mask where they are drawn and nowhere else', () =>
  withViewer(async (page, box) => {
    const before = readMask(fs.readFileSync(join(out, 'sub-0001', 'anat', MASK_FILE)))
    for (const [view, x, y] of [
      ['2', 0.4, 0.35],
      ['3', 0.6, 0.4],
      ['4', 0.45, 0.45]
    ]) {
      for (const key of [view, 'Escape']) await page.keyboard.press(key)
      const at = [box.x + x * box.width, box.y + y * box.height]
      await page.mouse.click(...at)
      const place = (await page.textContent('#location')).match(/-?[\d.]+/g).map(Number)
      const distance = v => Math.hypot(...before.place(v).map((mm, d) => mm - place[d]))
      const nearest = before.voxels.reduce((n, _, v) => (distance(v) < distance(n) ? v : n), 0)
      const inside = before.voxels[nearest]
      await page.keyboard.press(inside ? 'e' : 'd')
      await page.fill('#pen-size', '1')
      await page.mouse.click(...at)
      const after = await savedMask(page)
      assert.deepEqual(after.header, before.header)
      const changed = changes(before, after)
      assert.ok(changed.every(v => after.voxels[v] === 1 - inside))
      assert.ok(changed.includes(nearest), `${place} is not where the pen was`)
      // One voxel of the preview stands for a block of 2 x 2 x 1.
      const block = v => before.indices(v).map((i, d) => (d < 2 ? i >> 1 : i))
      assert.equal(new Set(changed.map(v => String(block(v)))).size, 1)
      await page.keyboard.press('u')
      assert.equal(await page.isDisabled('#save'), true)
    }
  }))

test('the command takes the mended mask and the ratings', () =>
  withViewer(async (page, box) => {
    const file = join(out, 'sub-0001', 'anat', MASK_FILE)
    const row = output => {
      const lines = fs.readFileSync(join(output, 'tavrel.tsv'), 'utf8').split('\n')
      const [head, cells] = [lines[0], lines[1]].map(line => line.split('\t'))
      return Object.fromEntries(head.map((name, i) => [name, cells[i]]))
    }
    const drag = async (from, to) => {
      await page.mouse.move(box.x + from * box.width, box.y + 0.5 * box.height)
      await page.mouse.down()
      await page.mouse.move(box.x + to * box.width, box.y + 0.5 * box.height, { steps: 5 })
      await page.mouse.up()
    }
    const before = readMask(fs.readFileSync(file))
    for (const key of ['2', 'd']) await page.keyboard.press(key)
    await drag(0.5, 0.95)
    const drawn = await savedMask(page)
    const added = changes(before, drawn)
    assert.ok(added.length > 100 && added.every(v => drawn.voxels[v] === 1))
    await page.keyboard.press('e')
    await drag(0.3, 0.5)
    assert.match(await page.textContent('#strokes'), /^2 strokes/)
    const erased = changes(drawn, await savedMask(page))
    assert.ok(erased.length > 100 && erased.every(v => drawn.voxels[v] === 1))
    await page.keyboard.press('Control+z')
    assert.deepEqual((await savedMask(page)).voxels, drawn.voxels)

    await page.keyboard.press('p')
    fs.writeFileSync(join(out, 'tavrel_ratings.tsv'), (await saved(page, '#export')).bytes)
    const mended = (await saved(page, '#save')).bytes
    fs.writeFileSync(file, mended)
    run(out, 'participant', 0)
    assert.deepEqual(fs.readFileSync(file), mended)
    const { manual, rating, volume_ml: volume } = row(out)
    assert.deepEqual([manual, rating], ['true', 'pass'])
    assert.ok(Number(volume) > Number(row(stripped).volume_ml))
    await page.keyboard.press('i')
    assert.equal(await page.textContent('.chip.manual'), 'edited')
  }))

test('pages are accessible in light and dark', async () => {
  for (const [colorScheme, name] of [
    ['light', 'index.html'],
    ['dark', 'index.html'],
    ['light', 'sub-0001.html'],
    ['dark', 'sub-0002.html']
  ]) {
    const check = async page => {
      await page.addScriptTag({ path: require.resolve('axe-core/axe.min.js') })
      const { violations } = await page.evaluate(() => globalThis.axe.run())
      const list = violations.map(v => `${v.id}: ${v.nodes.map(n => n.html)}`)
      assert.deepEqual(list, [], `${name}, ${colorScheme}`)
    }
    await withPage(name, check, { colorScheme, bypassCSP: true })
  }
})

test('five thousand scans are no burden', async () => {
  out = makeOutput(5000)
  const start = Date.now()
  await withPage('index.html', async page => {
    await page.waitForSelector('#scans tbody tr')
    const loading = Date.now() - start
    const [sorting, filtering] = await page.evaluate(() => {
      const search = document.querySelector('#search')
      search.value = 'leak'
      return [
        () => document.querySelector('th.volume button').click(),
        () => search.dispatchEvent(new Event('input'))
      ].map(action => {
        const start = performance.now()
        action()
        document.body.offsetHeight // laid out
        return performance.now() - start
      })
    })
    assert.equal(await page.textContent('#shown'), '500 of 5000 scans')
    const took = { loading, sorting, filtering }
    console.log('milliseconds:', JSON.stringify(took))
    assert.ok(loading < 5000 && sorting < 1000 && filtering < 1000, JSON.stringify(took))
  })
})
