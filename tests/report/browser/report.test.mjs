// The report in a browser, as a reviewer uses it. MAKE_COHORT writes the output folder (one test runs
// TAVREL_BIDS itself, on a scan of NIFTI_PHANTOM), CHROMIUM is driven by playwright-core of
// BROWSER_PACKAGES.
import assert from 'node:assert/strict'
import { execFileSync } from 'node:child_process'
import { mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs'
import { createRequire } from 'node:module'
import { tmpdir } from 'node:os'
import { join } from 'node:path'
import { after, before, test } from 'node:test'
import { pathToFileURL } from 'node:url'
import { gunzipSync } from 'node:zlib'

const { BROWSER_PACKAGES, CHROMIUM, MAKE_COHORT, NIFTI_PHANTOM, TAVREL_BIDS } = process.env
const require = createRequire(join(BROWSER_PACKAGES, 'package.json'))
const { chromium } = require('playwright-core')
const folder = mkdtempSync(join(tmpdir(), 'tavrel-report-'))
const EVIL = "sub-0003_acq-<img src=x onerror=document.title='hurt'>\"'&\n\tx"
const MASK = '1'.repeat(64)
let browser

before(async () => {
  execFileSync(MAKE_COHORT, [folder, '40', '4'])
  browser = await chromium.launch({
    executablePath: CHROMIUM,
    args: [
      ...(process.getuid() === 0 ? ['--no-sandbox'] : []),
      '--use-gl=angle',
      '--use-angle=swiftshader',
      '--enable-unsafe-swiftshader',
      '--disable-dev-shm-usage',
      '--force-device-scale-factor=1'
    ]
  })
})
after(async () => {
  await browser?.close()
  rmSync(folder, { recursive: true })
})

const url = (name, base = folder) => pathToFileURL(join(base, name)).href

/** Runs a test in a fresh browser; errors on the page and requests that leave the disk fail it. */
async function withPage(options, use) {
  const context = await browser.newContext({ viewport: { width: 1150, height: 720 }, ...options })
  const page = await context.newPage()
  const wrong = []
  page.on('pageerror', error => wrong.push(error.message))
  page.on('console', message => message.type() === 'error' && wrong.push(message.text()))
  page.on(
    'request',
    request => /^(file|data|blob):/.test(request.url()) || wrong.push(request.url())
  )
  await use(page)
  assert.deepEqual(wrong, [])
  await context.close()
}

const names = page => page.$$eval('#scans tbody tr', rows => rows.map(row => row.dataset.scan))
const column = (page, name) =>
  page.$$eval(`#scans td.${name}`, cells =>
    cells.map(cell => parseFloat(cell.textContent)).filter(v => !isNaN(v))
  )

/** What a click on a button that saves a file gives. */
async function saved(page, selector) {
  const [download] = await Promise.all([page.waitForEvent('download'), page.click(selector)])
  return { name: download.suggestedFilename(), bytes: readFileSync(await download.path()) }
}

test('the index sorts, filters and shows names as they are', () =>
  withPage({}, async page => {
    await page.goto(url('index.html'))
    const first = await names(page)
    assert.equal(first.length, 40)
    assert.equal(first[0], 'sub-0002', 'what failed comes first')
    assert.ok(
      first.indexOf('sub-0013') < first.indexOf('sub-0001'),
      'flagged scans come before others'
    )

    await page.click('th.volume button')
    const volumes = await column(page, 'volume')
    assert.deepEqual(
      volumes,
      [...volumes].sort((a, b) => b - a)
    )
    assert.equal((await names(page)).at(-1), 'sub-0002', 'what has no volume comes last')
    await page.click('th.volume button')
    assert.equal(await page.getAttribute('th.volume', 'aria-sort'), 'ascending')
    assert.deepEqual(await column(page, 'volume'), volumes.reverse())

    await page.click('[data-kind=flagged]')
    assert.deepEqual((await names(page)).sort(), ['sub-0013', 'sub-0023', 'sub-0033', EVIL].sort())
    await page.fill('#search', '0023 leak')
    assert.deepEqual(await names(page), ['sub-0023'])
    await page.fill('#search', '')
    await page.click('[data-kind=all]')

    assert.ok((await names(page)).includes(EVIL))
    assert.notEqual(await page.title(), 'hurt')
    const picture = page.locator('tr[data-scan="sub-0001"] img')
    await picture.scrollIntoViewIfNeeded()
    await page.waitForFunction(
      image => image.complete && image.naturalWidth > 100,
      await picture.elementHandle()
    )
  }))

test('a dot of a plot leads to its scan', () =>
  withPage({}, async page => {
    await page.goto(url('index.html'))
    await page.locator('.plot canvas').first().focus()
    await page.keyboard.press('ArrowRight')
    await page.keyboard.press('Enter')
    const least = await page.evaluate(() => document.activeElement.closest('tr').dataset.scan)
    await page.click('th.volume button')
    await page.click('th.volume button')
    assert.equal((await names(page))[0], least)
  }))

test('ratings are kept, carried between pages, exported and imported', async () => {
  let table
  await withPage({}, async page => {
    await page.goto(url('index.html'))
    await page.click('th.scan button')
    await page.focus('tr[data-scan="sub-0001"]')
    await page.keyboard.press('p')
    await page.click('tr[data-scan="sub-0004"] .name a')
    await page.waitForURL(/sub-0004\.html$/) // nothing of what is carried stays in the address
    await page.keyboard.press('f')
    await page.keyboard.press('c')
    await page.keyboard.type('leaks at the vertex')
    await page.keyboard.press('Enter')
    await page.keyboard.press('b')
    await page.waitForURL(/sub-0003_acq/)
    assert.equal(await page.isChecked('[value=maybe]'), true, 'the rating of the table')
    assert.match(await page.inputValue('#comment'), /^<\/script><script>/)
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
    `sub-0001\tn/a\tsub-0001\tpass\tn/a\t${MASK}`,
    `sub-0003\tn/a\t${EVIL.replace('\n', '\\x0a').replace('\t', '\\x09')}\tmaybe\t</script><script>document.title = 'hurt'</script>\\x09tab\\x0aline \\n\t${MASK}`,
    `sub-0004\tn/a\tsub-0004\tfail\tleaks at the vertex\t${MASK}`,
    ''
  ])

  await withPage({}, async page => {
    await page.goto(url('index.html'))
    const file = join(folder, 'ratings.tsv')
    writeFileSync(file, table.replace('sub-0004\tfail', 'sub-0004\tmaybe').replace(/\n/g, '\r\n'))
    await page.setInputFiles('#import-file', file)
    await page.waitForSelector('tr[data-scan="sub-0004"].maybe')
    assert.equal(
      (await saved(page, '#export')).bytes.toString(),
      table.replace('sub-0004\tfail', 'sub-0004\tmaybe')
    )
    writeFileSync(file, 'scan\trating\nsub-0001\texcellent\n')
    await page.setInputFiles('#import-file', file)
    await page.waitForFunction(() =>
      /"excellent" is no rating/.test(document.querySelector('#status').textContent)
    )
    await page.reload()
    await page.waitForSelector('tr[data-scan="sub-0001"].pass')
    writeFileSync(file, `scan\trating\tmask_sha256\nsub-0001\tpass\t${MASK.replace('1', '2')}\n`)
    await page.setInputFiles('#import-file', file)
    await page.waitForSelector('tr[data-scan="sub-0001"]:not(.pass)')
    assert.match(await page.textContent('tr[data-scan="sub-0001"] .rating'), /was pass, of another/)
  })
})

async function openViewer(page, name) {
  await page.goto(url(name))
  await page.locator('#canvas').scrollIntoViewIfNeeded()
  await page.waitForSelector('#viewer[data-ready]', { timeout: 90000 })
  await page
    .locator('.viewer')
    .evaluate(section => scrollTo(0, section.getBoundingClientRect().top + scrollY - 60))
}

/** Pixels of the viewer in the colour of the mask, and pixels with any picture at all. */
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
  withPage({}, async page => {
    await openViewer(page, 'sub-0001.html')
    const on = await colours(page)
    assert.ok(on.mask > 20000 && on.picture > on.mask, JSON.stringify(on))
    assert.equal(on.strong, 0)
    await page.keyboard.press('o')
    const off = await colours(page)
    assert.ok(off.mask < 20 && off.picture > 0.8 * on.picture, JSON.stringify(off))
    await page.keyboard.press('o')
    await page.fill('#opacity', '1')
    const full = await colours(page)
    assert.ok(full.strong > 0.7 * on.mask, JSON.stringify(full))
  }))

/** A NIfTI-1 file: header, voxels, and the place of a voxel in millimetres. */
function readMask(bytes) {
  const file = gunzipSync(bytes)
  const size = [0, 1, 2].map(d => file.readInt16LE(42 + 2 * d))
  const row = r => [0, 1, 2, 3].map(c => file.readFloatLE(280 + 16 * r + 4 * c))
  return {
    size,
    header: file.subarray(0, 352),
    voxels: file.subarray(352),
    place: v => {
      const at = [
        v % size[0],
        Math.floor(v / size[0]) % size[1],
        Math.floor(v / size[0] / size[1]),
        1
      ]
      return [0, 1, 2].map(r => row(r).reduce((sum, m, c) => sum + m * at[c], 0))
    }
  }
}

const originalMask = name =>
  readMask(readFileSync(join(folder, name, 'anat', `${name}_desc-brain_mask.nii.gz`)))
const changes = (before, after) =>
  [...before.voxels.keys()].filter(v => before.voxels[v] !== after.voxels[v])

/** Blocks of 2 x 2 x 1 voxels, which one voxel of the preview stands for, that hold these voxels. */
const blocks = ({ size }, voxels) =>
  new Set(
    voxels.map(v => {
      const [x, y, z] = [
        v % size[0],
        Math.floor(v / size[0]) % size[1],
        Math.floor(v / size[0] / size[1])
      ]
      return `${x >> 1} ${y >> 1} ${z}`
    })
  )

async function savedMask(page) {
  const { name, bytes } = await saved(page, '#save')
  assert.equal(name, 'sub-0001_desc-brain_mask.nii.gz')
  return readMask(bytes)
}

async function drag(page, from, to) {
  const box = await page.locator('#canvas').boundingBox()
  await page.mouse.move(box.x + from * box.width, box.y + 0.5 * box.height)
  await page.mouse.down()
  await page.mouse.move(box.x + to * box.width, box.y + 0.5 * box.height, { steps: 5 })
  await page.mouse.up()
}

test('strokes change the mask where they are drawn and nowhere else', () =>
  withPage({}, async page => {
    await openViewer(page, 'sub-0001.html')
    const before = originalMask('sub-0001')
    assert.deepEqual(before.size, [136, 150, 60])
    const box = await page.locator('#canvas').boundingBox()
    for (const [view, x, y] of [
      ['2', 0.4, 0.35],
      ['3', 0.6, 0.4],
      ['4', 0.45, 0.45]
    ]) {
      await page.keyboard.press(view)
      await page.keyboard.press('Escape')
      const at = [box.x + x * box.width, box.y + y * box.height]
      await page.mouse.click(...at)
      const place = (await page.textContent('#location'))
        .match(/-?[\d.]+/g)
        .slice(0, 3)
        .map(Number)
      const distance = v => Math.hypot(...before.place(v).map((mm, d) => mm - place[d]))
      const nearest = [...before.voxels.keys()].reduce((best, v) =>
        distance(v) < distance(best) ? v : best
      )
      const inside = before.voxels[nearest]
      await page.keyboard.press(inside ? 'e' : 'd')
      await page.fill('#pen-size', '1')
      await page.mouse.click(...at)
      const after = await savedMask(page)
      assert.deepEqual(after.header, before.header)
      const changed = changes(before, after)
      assert.equal(blocks(before, changed).size, 1)
      assert.ok(changed.every(v => after.voxels[v] === 1 - inside))
      assert.ok(changed.includes(nearest), `${place} is not where the pen was`)
      await page.keyboard.press('u')
      assert.equal(await page.isDisabled('#save'), true)
    }
  }))

test('the pen adds, the eraser takes away, and undo gives back', () =>
  withPage({}, async page => {
    await openViewer(page, 'sub-0001.html')
    const before = originalMask('sub-0001')
    await page.keyboard.press('2')
    await page.keyboard.press('d')
    await drag(page, 0.5, 0.95)
    const drawn = await savedMask(page)
    const added = changes(before, drawn)
    assert.ok(added.length > 100 && added.every(v => drawn.voxels[v] === 1))
    await page.keyboard.press('e')
    await drag(page, 0.3, 0.5)
    assert.match(await page.textContent('#strokes'), /^2 strokes/)
    const erased = changes(drawn, await savedMask(page))
    assert.ok(erased.length > 100 && erased.every(v => drawn.voxels[v] === 1))
    await page.keyboard.press('Control+z')
    assert.deepEqual((await savedMask(page)).voxels, drawn.voxels)
  }))

test('the command takes the mended mask and the ratings', () =>
  withPage({}, async page => {
    const [raw, out] = [join(folder, 'raw'), join(folder, 'out')]
    mkdirSync(join(raw, 'sub-01', 'anat'), { recursive: true })
    writeFileSync(
      join(raw, 'dataset_description.json'),
      '{"Name": "One phantom", "BIDSVersion": "1.10.0"}'
    )
    execFileSync(NIFTI_PHANTOM, [
      '72',
      '84',
      '76',
      join(raw, 'sub-01', 'anat', 'sub-01_T1w.nii.gz')
    ])
    const run = level =>
      execFileSync(TAVREL_BIDS, [raw, out, level], { stdio: ['ignore', 'ignore', 'pipe'] })
    const table = () => {
      const [names, row] = readFileSync(join(out, 'tavrel.tsv'), 'utf8')
        .split('\n')
        .map(line => line.split('\t'))
      return Object.fromEntries(names.map((name, i) => [name, row[i]]))
    }
    run('participant')
    assert.equal(table().manual, 'false')
    await openViewer(page, 'out/sub-01.html')
    await page.keyboard.press('2')
    await page.keyboard.press('e')
    await drag(page, 0.4, 0.6)
    const mended = (await saved(page, '#save')).bytes
    await page.keyboard.press('p')
    writeFileSync(join(out, 'tavrel_ratings.tsv'), (await saved(page, '#export')).bytes)
    const mask = join(out, 'sub-01', 'anat', 'sub-01_desc-brain_mask.nii.gz')
    writeFileSync(mask, mended)
    const volume = table().volume_ml
    run('participant')
    assert.deepEqual(readFileSync(mask), mended)
    assert.equal(table().manual, 'true')
    assert.equal(table().rating, 'pass')
    assert.ok(Number(table().volume_ml) < Number(volume))
    await page.goto(url('out/index.html'))
    assert.equal(await page.textContent('.chip.manual'), 'edited')
  }))

test('pages are accessible in light and dark', async () => {
  for (const [colorScheme, name] of [
    ['light', 'index.html'],
    ['dark', 'index.html'],
    ['light', 'sub-0001.html'],
    ['dark', 'sub-0002.html']
  ]) {
    await withPage({ colorScheme, bypassCSP: true }, async page => {
      await page.goto(url(name))
      await page.addScriptTag({ path: require.resolve('axe-core/axe.min.js') })
      const { violations } = await page.evaluate(() => globalThis.axe.run())
      assert.deepEqual(
        violations.map(v => `${v.id}: ${v.nodes.map(n => n.html)}`),
        [],
        `${name}, ${colorScheme}`
      )
    })
  }
})

test('five thousand scans are no burden', async () => {
  const large = mkdtempSync(join(tmpdir(), 'tavrel-report-'))
  execFileSync(MAKE_COHORT, [large, '5000', '0'])
  assert.equal(readdirSync(large).length, 5001)
  await withPage({}, async page => {
    const start = Date.now()
    await page.goto(url('index.html', large))
    await page.waitForSelector('#scans tbody tr')
    const took = { loading: Date.now() - start }
    for (const [what, action] of [
      ['sorting', () => document.querySelector('th.volume button').click()],
      [
        'filtering',
        () => {
          const search = document.querySelector('#search')
          search.value = 'leak'
          search.dispatchEvent(new Event('input'))
        }
      ]
    ]) {
      took[what] = await page.evaluate(action => {
        const start = performance.now()
        new Function(`(${action})()`)()
        document.body.offsetHeight // laid out
        return performance.now() - start
      }, String(action))
    }
    assert.equal(await page.textContent('#shown'), '500 of 5000 scans')
    console.log('milliseconds:', JSON.stringify(took))
    assert.ok(
      took.loading < 5000 && took.sorting < 1000 && took.filtering < 1000,
      JSON.stringify(took)
    )
  })
  rmSync(large, { recursive: true })
})
