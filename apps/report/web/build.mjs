// Bundles the viewer: node build.mjs SOURCES BUILT, where BUILT has the node_modules. Writes
// BUILT/viewer.gz and BUILT/viewer-licenses.txt, the same bytes every time.
import { createRequire } from 'node:module'
import { readdirSync, readFileSync, writeFileSync } from 'node:fs'
import { join, resolve } from 'node:path'
import { gzipSync } from 'node:zlib'

const [sources, built] = process.argv.slice(2).map(path => resolve(path))
const esbuild = createRequire(join(built, 'package.json'))('esbuild')

/** The licences of the packages that the bundle has code of. */
function licences(inputs) {
  const folders = new Set(inputs.map(i => /node_modules\/(@[^/]+\/[^/]+|[^/]+)/.exec(i)?.[1]))
  folders.delete(undefined)
  return (
    [...folders]
      .sort()
      .map(name => {
        const folder = join(built, 'node_modules', name)
        const { version, license } = JSON.parse(readFileSync(join(folder, 'package.json')))
        const file = readdirSync(folder).find(f => /^licen[cs]e/i.test(f))
        // niivue's package names its licence only.
        const path = file
          ? join(folder, file)
          : name === '@niivue/niivue' && join(sources, 'niivue-license.txt')
        const text = path ? readFileSync(path, 'utf8').trim() : ''
        return `${name} ${version}, licence ${license}\n\n${text}`.trim()
      })
      .join(`\n\n${'-'.repeat(72)}\n\n`) + '\n'
  )
}

const result = await esbuild.build({
  entryPoints: [join(sources, 'viewer.js')],
  absWorkingDir: built,
  nodePaths: [join(built, 'node_modules')],
  alias: { zarrita: join(sources, 'absent.js') },
  bundle: true,
  minify: true,
  format: 'iife',
  target: 'es2022',
  legalComments: 'none',
  logLevel: 'warning',
  metafile: true,
  write: false
})
const used = Object.entries(Object.values(result.metafile.outputs)[0].inputs)
const text = licences(used.filter(([, use]) => use.bytesInOutput > 0).map(([name]) => name))
writeFileSync(join(built, 'viewer-licenses.txt'), text)
const code = `/*\n${text.replaceAll('*/', '* /')}*/\n${result.outputFiles[0].text}`
writeFileSync(join(built, 'viewer.gz'), gzipSync(code, { level: 9 }))
