// A recording as one document that can be mailed and printed: what was found, with pictures, what happened,
// what the camera was. It has no script and reaches nothing. Pure.

import { chartFigure, markup, timelineFigure } from './chart_svg.js';
import { folded, KIND_TITLES, KINDS } from './marks.js';
import { wallText } from './series.js';
import { visible } from './dom.js';

const MOST_MARKS = 400;
const TITLES = { grave: 'Grave', warning: 'Warning', note: 'Note' };
const POLICY = "default-src 'none'; img-src data:; style-src 'unsafe-inline'";
const STYLE = `
:root { color-scheme: light; }
body { max-width: 52rem; margin: 2rem auto; padding: 0 1rem; font: 15px/1.5 system-ui, sans-serif; color: #1a232c; background: #fff; overflow-wrap: anywhere; }
h1 { font-size: 1.5rem; margin: 0 0 0.2rem; } h2 { font-size: 1.15rem; margin: 2rem 0 0.5rem; border-bottom: 1px solid #d5dbe1; }
h3 { font-size: 1rem; margin: 1.2rem 0 0.2rem; }
.quiet { color: #55626f; margin: 0.2rem 0; } .grave { color: #b3261e; } .warning { color: #8f5a00; } .note { color: #55626f; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: 0.2rem 1rem; margin: 0; } dt { color: #55626f; } dd { margin: 0; white-space: pre-line; }
table { border-collapse: collapse; width: 100%; } th, td { text-align: left; padding: 0.15rem 0.5rem 0.15rem 0; vertical-align: top; font-weight: normal; border-bottom: 1px solid #e6eaee; }
thead th { color: #55626f; font-size: 0.87rem; } .stamp { white-space: nowrap; }
.legend th + th, .legend td { text-align: right; white-space: nowrap; } .legend { font-size: 0.87rem; }
.swatch { display: inline-block; width: 1.1rem; vertical-align: middle; }
figure { margin: 0.8rem 0 1.4rem; break-inside: avoid; } figcaption { font-weight: 600; }
svg { display: block; width: 100%; height: auto; font: 11px system-ui, sans-serif; fill: #3c4854; }
.grid { stroke: #e6eaee; fill: none; } .mid { text-anchor: middle; } .end { text-anchor: end; }
li { margin: 0.4rem 0; } ul { padding-left: 1.2rem; }
@media (max-width: 30rem) { dl { grid-template-columns: 1fr; } dd { margin-bottom: 0.4rem; } }
@media print { body { margin: 0; max-width: none; font-size: 11pt; } h2, h3 { break-after: avoid; } tr, li { break-inside: avoid; } }
`;

/** @typedef {import('./findings.js').Finding} Finding */
/** @typedef {import('./marks.js').Mark} Mark */
/** @typedef {Omit<Parameters<typeof chartFigure>[0], 'marks'>} Picture */

/**
 * @typedef {object} Report
 * @property {string} title
 * @property {string} made when
 * @property {[string, string][]} facts
 * @property {[string, string][]} versions of packages
 * @property {(Finding & {picture?: Picture})[]} findings
 * @property {string} verdict
 * @property {[string, string][]} figures
 * @property {string[]} unjudged
 * @property {Mark[]} marks in the order of their times
 * @property {Picture[]} pictures of the whole
 * @property {[number, number]} span
 */

/** Half an address or name at the end of a quotation that was cut can't be recognised. @param {string} text */
const withoutCutEnd = (text) => text.replace(/(“[^”]{140,}?)(?:\S+\s+)?\S*”/, '$1…”');

/**
 * The document.
 * @param {Report} report
 * @param {(text: string) => string} [hide] puts stand-ins for secrets
 * @param {() => string} [replaced] asked last: what it replaced
 */
export function reportHtml(report, hide = (text) => text, replaced) {
  const text = (/** @type {string} */ value) => markup(visible(hide(replaced ? withoutCutEnd(value) : value)));
  const stamp = (/** @type {number} */ time) => `<td class="stamp">${wallText(time)}</td>`;
  const facts = (/** @type {[string, string][]} */ pairs) => `<dl>${pairs.filter(([, value]) => value !== '')
    // Together, as "Serial Number: X" tells what X is.
    .map(([name, value]) => {
      const [line, own] = [hide(`${name}: ${value}`), hide(name)];
      return `<dt>${markup(visible(own))}</dt><dd>${markup(visible(line.startsWith(`${own}: `) ? line.slice(own.length + 2) : line))}</dd>`;
    }).join('')}</dl>`;
  const grave = report.marks.filter(({ kind }) => kind === 'crash' || kind === 'reboot' || kind === 'gap' || kind === 'storage');
  const picture = (/** @type {Picture | undefined} */ one) => (one ? chartFigure({
    ...one, title: hide(one.title), series: one.series.map((series) => ({
      ...series, name: hide(series.name), categories: series.categories?.map((state) => hide(state)) ?? null,
    })), marks: grave,
  }) : '');
  const wrong = report.findings.filter(({ severity }) => severity !== 'note');
  const notes = report.findings.filter(({ severity }) => severity === 'note');
  const rows = folded(report.marks);
  const kept = rows.length <= MOST_MARKS ? rows : [...rows].sort((a, b) => KINDS.indexOf(a.kind) - KINDS.indexOf(b.kind)).slice(0, MOST_MARKS)
    .sort((a, b) => a.time - b.time);
  const body = [
    `<h1>Report: ${text(report.title)}</h1><p class="quiet">Made ${text(report.made)}. Times are those of the camera’s clock.</p>`,
    `<h2>Findings</h2><p>${text(report.verdict)}</p>`,
    ...wrong.map((finding) => `<section><h3><span class="${finding.severity}">${TITLES[finding.severity]}:</span> ${text(finding.text)}</h3>`
      + `<p class="quiet">${wallText(finding.from)}${finding.to > finding.from ? ` to ${wallText(finding.to)}` : ''}${finding.path ? ` · ${text(finding.path)}` : ''}</p>${
        picture(finding.picture)}</section>`),
    notes.length === 0 ? '' : `<h3>Notes</h3><ul>${notes.map((finding) => `<li>${text(finding.text)}</li>`).join('')}</ul>`,
    report.figures.length === 0 ? '' : `<h3>Figures</h3>${facts(report.figures)}`,
    report.unjudged.length === 0 ? '' : `<p class="quiet">Not judged, as it was not recorded or can’t be read: ${text(report.unjudged.join(', '))}.</p>`,
    `<h2>Information</h2>${facts(report.facts)}`,
    report.versions.length === 0 ? '' : `<h3>Packages</h3>${facts(report.versions)}`,
    `<h2>What happened</h2>${rows.length === 0 ? '<p>Nothing was told.</p>' : `${timelineFigure(report.marks, report.span)}<table><thead><tr><th scope="col">Time</th><th scope="col">Kind</th><th scope="col">What</th></tr></thead><tbody>${
      kept.map((mark) => `<tr>${stamp(mark.time)}<td class="stamp">${KIND_TITLES[mark.kind]}</td><td>${text(mark.text)}${
        mark.count > 1 ? `, ${mark.count.toLocaleString('en')} times until ${wallText(mark.last)}` : ''}</td></tr>`).join('')}</tbody></table>`}${
      rows.length > kept.length ? `<p class="quiet">The gravest ${kept.length} of ${rows.length}.</p>` : ''}`,
    report.pictures.length === 0 ? '' : `<h2>The whole time</h2>${report.pictures.map(picture).join('')}`,
  ].join('\n');
  const title = text(report.title);
  const said = replaced?.();
  return `<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="${POLICY}">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="referrer" content="no-referrer">
<title>${title}</title>
<style>${STYLE}</style>
</head>
<body>
<main>
${body}
${said === undefined ? '' : `<h2>Without secrets</h2><p>${markup(said)}</p>`}
</main>
</body>
</html>
`;
}
