// Makes what the page can't be served without and what is not written by hand: the libraries that
// it imports (html/lib) and the archive viewer as one file that works without a server
// (html/viewer.html).
//
//   node cmake/build_page.mjs FOLDER    the page's folder

import { createHash } from 'node:crypto';
import { mkdirSync, readFileSync, readdirSync, renameSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';

const page = process.argv[2];
if (!page) {
  console.error('usage: build_page.mjs FOLDER');
  process.exit(2);
}
let esbuild;
try {
  esbuild = await import('esbuild');
} catch (error) {
  console.error(`The page's tools are missing; get them with: .ci/dependencies.sh run (${error})`);
  process.exit(1);
}
const { resolve } = createRequire(import.meta.url);
const resolveDir = fileURLToPath(new URL('.', import.meta.url));
const lib = join(page, 'lib');
mkdirSync(lib, { recursive: true });

/** A page that is being served never sees half a file. */
function write(path, text) {
  writeFileSync(`${path}.new`, text);
  renameSync(`${path}.new`, path);
}

/** @returns {Promise<string>} */
async function bundle(options) {
  const { outputFiles } = await esbuild.build({
    bundle: true, minify: true, write: false, target: 'es2022', charset: 'utf8',
    legalComments: 'inline', logLevel: 'warning', ...options,
  });
  return outputFiles[0].text;
}

for (const [name, exported] of [['uplot', '{ default }'], ['unzipit', '{ unzipRaw }']]) {
  const contents = `export ${exported} from '${name}';\n`;
  write(join(lib, `${name}.js`), await bundle({ stdin: { contents, resolveDir }, format: 'esm' }));
  write(join(lib, `${name}.d.ts`), contents); // for the check of the page's types
}
/** The licences of the libraries that are shipped with the page and in the viewer. */
const licences = ['uplot', 'unzipit'].map((name) => {
  const folder = fileURLToPath(new URL(`../node_modules/${name}/`, import.meta.url));
  const file = readdirSync(folder).find((entry) => /^licen[cs]e/i.test(entry));
  const { version } = JSON.parse(readFileSync(join(folder, 'package.json'), 'utf8'));
  return `${name} ${version}\n\n${readFileSync(join(folder, file), 'utf8').trim()}\n`;
}).join(`\n${'-'.repeat(72)}\n\n`);
write(join(lib, 'LICENSES.txt'), licences);

const chartStyle = readFileSync(resolve('uplot/dist/uPlot.min.css'), 'utf8');
write(join(lib, 'uplot.css'), chartStyle);

const script = (await bundle({ entryPoints: [join(page, 'js/viewer_main.js')], format: 'iife' }))
  .replaceAll('</script', '<\\/script');
const style = chartStyle + await bundle({ entryPoints: [join(page, 'style.css')] });
const hash = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`;
const policy = `default-src 'none'; script-src ${hash(script)}; style-src ${hash(style)}; `
  + `img-src data:; base-uri 'none'; form-action 'none'; require-trusted-types-for 'script'`;
const icon = Buffer.from(readFileSync(join(page, 'icon.svg'))).toString('base64');
const parts = {
  POLICY: policy, ICON: `data:image/svg+xml;base64,${icon}`, STYLE: style, SCRIPT: script,
  LICENCES: licences.replaceAll('--', '- -'),
};
write(join(page, 'viewer.html'), readFileSync(new URL('viewer.html.in', import.meta.url), 'utf8')
  .replace(/@(POLICY|ICON|STYLE|SCRIPT|LICENCES)@/g, (_, name) => parts[name]));
