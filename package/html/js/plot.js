// One chart: lines, areas or bands of series over the time of its group, drawn by uPlot.

import uPlot from '../lib/uplot.js';
import { colourOfKind, isGrave } from './chart_group.js';
import { el, setText } from './dom.js';
import { elapsedText } from './format.js';
import { gathered, KINDS } from './marks.js';
import { aligned, extentOf, wallText } from './series.js';
import { scaleOf, toneOf, valueText } from './units.js';

const HEIGHT = 230;
const LANE = 36; // of a band with its name
const BAR = 15;
const AXIS = 56; // of times
const STRIP = 14; // for the marks above the plot
const ZOOM = 2;
const PAN = 0.25; // of what is in sight
const NEAR = 8; // pixels between two marks that are one
const MOST_IN_TIP = 12;
const LEAST_AXIS = 56; // so that charts below each other have their times below each other
// Told apart on a light and on a dark ground, also by those who see few colours.
const COLOURS = ['#2f7ed8', '#d9730d', '#1f9e77', '#c2449a', '#8a6fe8', '#a08000', '#d64545', '#3aa0b5', '#7a8b99', '#5b7f2a'];
const DASHES = [[], [6, 4], [2, 3], [10, 4, 2, 4]];
const TONES = { bad: '--bad', good: '--good', quiet: '--control-line' };

/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./chart_group.js').Mark} Mark */
/** @typedef {ReturnType<typeof import('./chart_group.js').createChartGroup>} Group */

/** Of a page's colours, which follow light and dark. @param {string} name */
export const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

/** @param {number} index of a series */
export function lookOf(index) {
  return {
    stroke: COLOURS[index % COLOURS.length] ?? '',
    dash: DASHES[Math.floor(index / COLOURS.length) % DASHES.length] ?? [],
  };
}

/** @param {string} state @param {number} index */
function stateColour(state, index) {
  const tone = toneOf(state);
  return tone ? colour(TONES[tone]) : COLOURS[(index + 2) % COLOURS.length] ?? '';
}

/** @param {Series} series @param {number | null | undefined} value */
export function seriesText(series, value) {
  return value === null || value === undefined ? ''
    : series.categories ? series.categories[value] ?? '' : valueText(value, series.unit);
}

/**
 * @typedef {object} Shown
 * @property {Series} series
 * @property {number} look
 * @property {boolean} visible
 */

/**
 * @param {Group} group
 * @param {string} label for those who can't see it
 * @param {object} [options]
 * @param {(index: number | null) => void} [options.onIndex] of the values under the cursor
 * @param {string} [options.id] of the chart whose limits are drawn
 * @param {boolean} [options.stacked]
 * @param {number} [options.height]
 * @param {boolean} [options.sinceStart] times are seconds since a start
 */
export function createPlot(
  group, label, { onIndex, id = '', stacked = false, height = HEIGHT, sinceStart = false } = {},
) {
  const tip = el('div', { class: 'tip', hidden: true, 'aria-hidden': 'true' });
  const unit = el('span', { class: 'unit', 'aria-hidden': 'true' });
  const otherUnit = el('span', { class: 'unit other', 'aria-hidden': 'true' });
  const place = el('div', {
    class: 'plot', tabindex: 0, role: 'img',
    'aria-label': `Chart of ${label}. Arrow keys move the cursor, plus and minus zoom, Page Up and Page Down move, Home shows all.`,
  }, unit, otherUnit);
  /** @type {uPlot | null} */
  let plot = null;
  /** @type {Shown[]} */
  let shown = [];
  /** What is recorded; a stack draws the sums. @type {[number[], ...(number | null | undefined)[][]]} */
  let recorded = [[]];
  let byKeyboard = false;
  let bands = false;

  /** @type {import('./chart_group.js').Member} */
  const member = {
    extent: (from) => extentOf(recorded[0], from),
    setRange([min, max]) {
      plot?.setScale('x', { min, max });
    },
    setCursor(time) {
      plot?.setCursor(time === null ? { left: -10, top: -10 } : { left: plot.valToPos(time, 'x'), top: 0 });
    },
    redraw() {
      plot?.redraw(false);
    },
  };

  /** @param {KeyboardEvent} event */
  function onKey(event) {
    if (!plot || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    const [times] = recorded;
    const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
    if (step) {
      const [from, to] = group.inSight();
      const at = plot.cursor.idx ?? (step > 0 ? -1 : times.length);
      let next = Math.min(Math.max(at + step, 0), times.length - 1);
      const time = times[next] ?? 0;
      if (time < from || time > to) {
        next = times.findIndex((one) => one >= from);
      }
      byKeyboard = true;
      group.point(times[next] ?? time);
      byKeyboard = false;
      group.tell(times[next] ?? time);
    } else if (event.key === '+' || event.key === '-') {
      const { left } = plot.cursor;
      group.zoom(event.key === '+' ? 1 / ZOOM : ZOOM, left !== undefined && left >= 0 ? plot.posToVal(left, 'x') : undefined);
    } else if (event.key === 'PageUp' || event.key === 'PageDown') {
      group.pan(event.key === 'PageUp' ? -PAN : PAN);
    } else if (event.key === 'Home') {
      group.setRange(null);
    } else if (event.key === 'Escape') {
      tip.hidden = true;
    } else {
      return;
    }
    event.preventDefault();
  }
  place.addEventListener('keydown', onKey);
  place.addEventListener('blur', () => { tip.hidden = true; });
  place.addEventListener('wheel', (event) => {
    if (plot && event.ctrlKey) {
      event.preventDefault();
      group.zoom(event.deltaY < 0 ? 1 / ZOOM : ZOOM, plot.posToVal(event.clientX - plot.over.getBoundingClientRect().left, 'x'));
    }
  }, { passive: false });
  place.addEventListener('mousedown', dragAlong, { capture: true });
  place.addEventListener('click', (event) => {
    if (plot && event.clientY < plot.over.getBoundingClientRect().top) {
      const at = event.clientX - plot.over.getBoundingClientRect().left;
      const near = clusters(plot).filter(({ time, until }) => plot
        && at > plot.valToPos(time, 'x') - NEAR && at < plot.valToPos(until, 'x') + NEAR);
      if (near[0]) {
        group.open(near.flatMap(({ marks }) => marks));
      }
    }
  });

  /** With the shift key the time line is dragged along. @param {MouseEvent} event */
  function dragAlong(event) {
    if (!plot || !event.shiftKey) {
      return;
    }
    event.preventDefault();
    event.stopPropagation();
    const [from, to] = group.inSight();
    const scale = (to - from) / plot.over.clientWidth;
    const move = (/** @type {MouseEvent} */ moved) => {
      const by = (event.clientX - moved.clientX) * scale;
      group.setRange([from + by, to + by]);
    };
    const end = () => {
      removeEventListener('mousemove', move);
      removeEventListener('mouseup', end);
    };
    addEventListener('mousemove', move);
    addEventListener('mouseup', end);
  }

  const observer = new ResizeObserver(() => {
    if (plot && place.clientWidth > 0 && place.clientWidth !== plot.width) {
      plot.setSize({ width: place.clientWidth, height: plot.height });
    }
  });

  /** @param {uPlot} self */
  function clusters(self) {
    const [from, to] = group.inSight();
    const near = (to - from) * NEAR / Math.max(1, self.over.clientWidth);
    return gathered(group.marks().filter(({ time, until }) => (until ?? time) >= from && time <= to), near);
  }

  /** @param {uPlot} self */
  function drawMarks(self) {
    const { ctx, bbox } = self;
    const ratio = devicePixelRatio;
    const left = (/** @type {number} */ time) => self.valToPos(time, 'x', true);
    ctx.save();
    ctx.beginPath();
    ctx.rect(bbox.left - 4 * ratio, 0, bbox.width + 8 * ratio, bbox.top + bbox.height);
    ctx.clip();
    const all = clusters(self);
    // The gravest last, on top of all others.
    for (const { time, kind, marks } of [...all].sort((a, b) => KINDS.indexOf(b.kind) - KINDS.indexOf(a.kind))) {
      const shade = colour(colourOfKind(kind));
      ctx.fillStyle = shade;
      for (const mark of marks) {
        if (mark.until !== undefined) {
          ctx.globalAlpha = 0.13;
          ctx.fillRect(left(mark.time), bbox.top, left(mark.until) - left(mark.time), bbox.height);
          ctx.globalAlpha = 1;
        }
      }
      const x = Math.round(left(time));
      if (isGrave(kind)) {
        ctx.fillRect(x, bbox.top, ratio, bbox.height);
      }
      const half = (marks.length > 1 ? 4 : 3) * ratio;
      ctx.beginPath();
      if (isGrave(kind)) {
        ctx.moveTo(x - half, bbox.top - STRIP * ratio + 3 * ratio);
        ctx.lineTo(x + half, bbox.top - STRIP * ratio + 3 * ratio);
        ctx.lineTo(x, bbox.top - 2 * ratio);
      } else {
        ctx.rect(x - half / 2, bbox.top - STRIP * ratio + 5 * ratio, half, 6 * ratio);
      }
      ctx.fill();
    }
    ctx.restore();
  }

  /** From which values on findings counted. @param {uPlot} self */
  function drawLimits(self) {
    const { ctx, bbox } = self;
    const ratio = devicePixelRatio;
    ctx.save();
    ctx.beginPath();
    ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
    ctx.clip();
    ctx.strokeStyle = ctx.fillStyle = colour('--bad');
    ctx.lineWidth = ratio;
    ctx.setLineDash([6 * ratio, 4 * ratio]);
    ctx.font = `${11 * ratio}px system-ui, sans-serif`;
    ctx.textBaseline = 'bottom';
    for (const [index, { value, text }] of bands ? [] : group.limitsOf(id).entries()) {
      const y = Math.round(self.valToPos(value, 'y', true)) + 0.5;
      ctx.beginPath();
      ctx.moveTo(bbox.left, y);
      ctx.lineTo(bbox.left + bbox.width, y);
      ctx.stroke();
      // Those of several things stand near each other: their names by turns on the right and on the left.
      ctx.textAlign = index % 2 === 0 ? 'right' : 'left';
      ctx.fillText(`limit: ${text}`, bbox.left + (index % 2 === 0 ? bbox.width - 4 * ratio : 4 * ratio), y - 2 * ratio);
    }
    ctx.restore();
  }

  /** States as bars, each series on a lane of its own. @param {uPlot} self */
  function drawBands(self) {
    const { ctx, bbox } = self;
    const ratio = devicePixelRatio;
    const [from, to] = group.inSight();
    ctx.save();
    ctx.beginPath();
    ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
    ctx.clip();
    ctx.textAlign = 'left';
    ctx.textBaseline = 'middle';
    ctx.font = `${11 * ratio}px system-ui, sans-serif`;
    let lane = 0;
    for (const [index, { series, visible }] of shown.entries()) {
      if (!visible) {
        continue;
      }
      const top = bbox.top + lane++ * LANE * ratio;
      ctx.fillStyle = colour('--text');
      ctx.fillText(series.name, bbox.left + 2 * ratio, top + 9 * ratio);
      for (const { begin, end, value } of runsOf(recorded[0], recorded[index + 1] ?? [])) {
        if (end < from || begin > to) {
          continue;
        }
        const state = series.categories?.[value] ?? '';
        const [x0, x1] = [begin, end].map((time) => Math.min(Math.max(self.valToPos(time, 'x', true), bbox.left), bbox.left + bbox.width));
        const width = Math.max((x1 ?? 0) - (x0 ?? 0), ratio);
        ctx.fillStyle = stateColour(state, value);
        ctx.fillRect(x0 ?? 0, top + 18 * ratio, width, BAR * ratio);
        if (ctx.measureText(state).width + 8 * ratio < width) {
          ctx.fillStyle = colour('--surface');
          ctx.fillText(state, (x0 ?? 0) + 4 * ratio, top + (18 + BAR / 2) * ratio);
        }
      }
    }
    ctx.restore();
  }

  /** @param {uPlot} self */
  function showTip(self) {
    const { left, idx } = self.cursor;
    const wanted = idx !== null && idx !== undefined && left !== undefined && left >= 0
      && (byKeyboard ? document.activeElement === place : self.over.matches(':hover'));
    tip.hidden = !wanted;
    if (!wanted) {
      return;
    }
    const time = recorded[0][idx] ?? 0;
    const rows = shown.flatMap(({ series, look, visible }, index) => {
      const value = recorded[index + 1]?.[idx] ?? near(recorded[index + 1] ?? [], idx);
      return visible && value !== null && value !== undefined ? [{ series, look, value }] : [];
    });
    const most = rows.slice(0, MOST_IN_TIP);
    tip.replaceChildren(el('p', {}, sinceStart ? elapsedText(time) : wallText(time)),
      ...most.map(({ series, look, value }) => {
        const swatch = el('i');
        swatch.style.background = series.categories ? stateColour(series.categories[value] ?? '', value) : lookOf(look).stroke;
        return el('p', {}, swatch, el('bdi', {}, series.name), el('b', {}, seriesText(series, value)));
      }),
      ...(rows.length > most.length ? [el('p', {}, `and ${rows.length - most.length} more`)] : []),
      ...[...new Set(group.marksAt(time).map(({ text }) => text))].slice(0, 3).map((text) => el('p', { class: 'of-mark' }, text)));
    const right = left > self.over.clientWidth / 2;
    tip.style.left = right ? '' : `${left + 12}px`;
    tip.style.right = right ? `${self.over.clientWidth - left + 12}px` : '';
  }

  /** @param {number} index of a series of `shown` @returns {string} */
  const scaleKey = (index) => (units().indexOf(shown[index]?.series.unit ?? '') < 1 ? 'y' : 'z');
  const units = () => [...new Set(shown.filter(({ visible }) => visible).map(({ series }) => series.unit ?? ''))];

  function drawn() {
    const [times, ...columns] = recorded;
    if (!stacked || bands) {
      return recorded;
    }
    const sums = new Array(times.length).fill(0);
    return [times, ...columns.map((column, index) => (!shown[index]?.visible ? column : column.map((value, row) => {
      if (value === null || value === undefined) {
        return value;
      }
      sums[row] += value;
      return sums[row];
    })))];
  }

  /** @returns {uPlot.Band[]} between each visible series of a stack and the one below it */
  function bandsBetween() {
    const visible = shown.flatMap(({ visible: is }, index) => (is ? [index + 1] : []));
    return visible.slice(1).map((upper, index) => ({ series: /** @type {[number, number]} */ ([upper, visible[index] ?? 1]), fill: `${lookOf(shown[upper - 1]?.look ?? 0).stroke}66` }));
  }

  /** @param {'y' | 'z'} key @returns {uPlot.Axis} */
  function valueAxis(key) {
    const quiet = () => colour('--quiet');
    const grid = { stroke: () => colour('--line'), width: 1, show: key === 'y' };
    return {
      stroke: quiet, grid, ticks: { ...grid, show: true }, scale: key, side: key === 'y' ? 3 : 1, show: !bands,
      size(self, values) {
        const longest = (values ?? []).reduce((most, text) => (text.length > most.length ? text : most), '');
        self.ctx.font = '12px system-ui';
        return Math.max(LEAST_AXIS, Math.ceil(self.ctx.measureText(longest).width) + 22);
      },
      values(self, splits) {
        const name = units()[key === 'y' ? 0 : 1] ?? '';
        const { min = 0, max = 0 } = self.scales[key] ?? {};
        const { text, size } = scaleOf(name, Math.max(Math.abs(min ?? 0), Math.abs(max ?? 0)));
        setText(key === 'y' ? unit : otherUnit, text);
        const step = Math.abs((splits[1] ?? 1) - (splits[0] ?? 0)) / size;
        const digits = step > 0 ? Math.min(Math.max(0, Math.ceil(-Math.log10(step) - 1e-9)), 6) : 0;
        return splits.map((split) => (split / size).toLocaleString('en', { minimumFractionDigits: digits, maximumFractionDigits: digits }));
      },
    };
  }

  function build() {
    const quiet = () => colour('--quiet');
    const grid = { stroke: () => colour('--line'), width: 1 };
    const lanes = shown.filter(({ visible }) => visible).length;
    const two = units().length > 1;
    setText(unit, '');
    setText(otherUnit, '');
    plot = new uPlot({
      width: Math.max(place.clientWidth, 200),
      height: bands ? Math.max(1, lanes) * LANE + STRIP + AXIS : height,
      padding: [STRIP, two ? 0 : 24, 0, bands ? 12 : 0],
      tzDate: (time) => uPlot.tzDate(new Date(time * 1000), 'Etc/UTC'),
      legend: { show: false },
      cursor: {
        sync: { key: sinceStart ? 'compared' : 'charts', setSeries: false, filters: { pub: (type) => type === 'mousemove' || type === 'mouseleave' } },
        y: false, drag: { x: true, y: false, setScale: false }, focus: { prox: 16 }, points: { show: !bands },
      },
      scales: {
        x: { time: true },
        y: bands ? { range: [0, 1] } : stacked ? { range: (_, __, max) => [0, max > 0 ? max * 1.02 : 1] } : {},
      },
      axes: [
        { stroke: quiet, grid, ticks: grid, values: sinceStart ? elapsedAxis : wallAxis, space: 80 },
        valueAxis('y'), ...(two ? [valueAxis('z')] : []),
      ],
      ...(stacked && !bands ? { bands: bandsBetween() } : {}),
      series: [{}, ...shown.map(({ series, look, visible }, index) => {
        const { stroke, dash } = lookOf(look);
        const lowest = stacked && visible && shown.findIndex((one) => one.visible) === index;
        return {
          label: series.name, show: visible, width: stacked ? 1 : 1.5, stroke, scale: scaleKey(index),
          ...(stacked ? {} : { dash }),
          ...(lowest ? { fill: `${stroke}66` } : {}),
          ...(bands ? { paths: () => null, points: { show: false } } : {}),
        };
      })],
      hooks: {
        drawClear: bands ? [drawBands] : [],
        draw: [drawLimits, drawMarks],
        setCursor: [(self) => {
          onIndex?.(self.cursor.idx ?? null);
          showTip(self);
          const { left } = self.cursor;
          if (left !== undefined && left >= 0 && self.over.matches(':hover')) {
            group.tell(self.posToVal(left, 'x'));
          }
        }],
        setSelect: [(self) => {
          const { left, width } = self.select;
          if (width > 0) {
            group.setRange([self.posToVal(left, 'x'), self.posToVal(left + width, 'x')]);
            self.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
          }
        }],
      },
    }, /** @type {uPlot.AlignedData} */ (drawn()), place);
    plot.over.append(tip);
    plot.over.addEventListener('dblclick', () => group.setRange(null));
    Object.assign(place, { plot, recorded });
    group.add(member);
  }

  function remove() {
    if (plot) {
      group.remove(member);
      plot.destroy();
      plot = null;
      Object.assign(place, { plot: null, recorded: null });
    }
  }

  return {
    element: place,
    /** All numbers, or all states. @param {Shown[]} next */
    show(next) {
      remove();
      shown = next;
      bands = next.length > 0 && next.every(({ series }) => series.categories !== null);
      recorded = aligned(next.map(({ series }) => series));
      observer.observe(place);
      build();
    },
    /** The value of a series, at an index that onIndex told. @param {number} series @param {number | null} index */
    valueAt: (series, index) => (index === null ? null : recorded[series + 1]?.[index] ?? near(recorded[series + 1] ?? [], index)),
    /** The picture as it is. */
    canvas: () => plot?.ctx.canvas ?? null,
    units: () => [unit.textContent, otherUnit.textContent].filter(Boolean).join(', '),
    close() {
      observer.disconnect();
      remove();
      recorded = [[]];
      shown = [];
    },
  };
}

/** A value beside an index at which a series of another file has no row. @param {(number | null | undefined)[]} column @param {number} index */
function near(column, index) {
  if (column[index] === null) {
    return null;
  }
  for (let by = 1; by <= 2; by++) {
    const value = column[index - by] ?? column[index + by];
    if (value !== null && value !== undefined) {
      return value;
    }
  }
  return null;
}

/**
 * The spans in which a series of states stays the same; one ends where the next begins, or a hole.
 * @param {number[]} times
 * @param {(number | null | undefined)[]} values
 */
export function runsOf(times, values) {
  /** @type {{begin: number, end: number, value: number}[]} */
  const runs = [];
  let open = false;
  for (let row = 0; row < times.length; row++) {
    const value = values[row];
    const time = times[row] ?? 0;
    const last = runs.at(-1);
    if (value === undefined) {
      continue;
    }
    if (open && last) {
      last.end = time;
    }
    if (value === null) {
      open = false;
    } else if (!open || last?.value !== value) {
      runs.push({ begin: time, end: time, value });
      open = true;
    }
  }
  return runs;
}

/** @param {uPlot} _ @param {number[]} splits */
const elapsedAxis = (_, splits) => splits.map((split) => elapsedText(split, (splits[1] ?? 60) - (splits[0] ?? 0) >= 60));

/** Times below a chart: the day where it changes. @param {uPlot} _ @param {number[]} splits */
function wallAxis(_, splits) {
  const seconds = (splits[1] ?? 60) - (splits[0] ?? 0) < 60;
  let day = '';
  return splits.map((split) => {
    const [date = '', time = ''] = wallText(split).split(' ');
    const text = seconds ? time : time.slice(0, 5);
    const lines = date === day ? text : `${text}\n${date}`;
    day = date;
    return lines;
  });
}

