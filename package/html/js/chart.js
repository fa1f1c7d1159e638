// Charts over one time line: what is zoomed, panned or pointed at in one is so in all of its group.

import uPlot from '../lib/uplot.js';
import { el } from './dom.js';
import { aligned, wallText } from './series.js';

const HEIGHT = 220;
const SHORTEST_RANGE_S = 10;
const ZOOM = 2;
const PAN = 0.25; // of what is in sight
const MARK_MARGIN_S = 600;
const MARK_REACH = 0.005; // of what is in sight
// Told apart on a light and on a dark ground, also by those who see few colours.
const COLOURS = ['#2f7ed8', '#d9730d', '#1f9e77', '#c2449a', '#8a6fe8', '#a08000', '#d64545', '#4aa3b8'];
const DASHES = [[], [6, 4], [2, 3], [10, 4, 2, 4]];

/** @typedef {import('./series.js').Series} Series */
/** @typedef {import('./marks.js').Mark} Mark */

/** Of a page's colours, which follow light and dark. @param {string} name */
const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

/** @param {number} index of a series */
export function lookOf(index) {
  return {
    stroke: COLOURS[index % COLOURS.length] ?? '',
    dash: DASHES[Math.floor(index / COLOURS.length) % DASHES.length] ?? [],
  };
}

/** @param {number} value */
export function numberText(value) {
  const size = Math.abs(value);
  return size >= 1e6 || Number.isInteger(value) ? Math.round(value).toLocaleString('en')
    : value.toLocaleString('en', { maximumSignificantDigits: size >= 1000 ? 6 : 4 });
}

/** @param {Series} series @param {number | null | undefined} value */
export function valueText(series, value) {
  return value === null || value === undefined ? ''
    : series.categories ? series.categories[value] ?? '' : numberText(value);
}

/**
 * What charts have in common.
 * @param {(time: number, marks: Mark[]) => void} pointed at a time, with the marks there
 */
export function createChartGroup(pointed) {
  /** @type {Set<uPlot>} */
  const plots = new Set();
  /** @type {Set<(range: [number, number]) => void>} */
  const listeners = new Set();
  /** @type {Mark[]} */
  let marks = [];
  /** @type {[number, number] | null} in sight; null for all */
  let range = null;
  let sharing = false;
  const key = `charts-${Math.random()}`;

  /** @returns {[number, number]} */
  function whole() {
    const ends = [...plots].flatMap(({ data: [times] }) => (times.length > 0 ? [times[0] ?? 0, times[times.length - 1] ?? 0] : []));
    const [first, last] = [Math.min(...ends), Math.max(...ends)];
    // What happened just before the first row and after the last is in sight too.
    const near = marks.map(({ time }) => time).filter((time) => time > first - MARK_MARGIN_S && time < last + MARK_MARGIN_S);
    const [from, to] = [Math.min(first, ...near), Math.max(last, ...near)];
    return ends.length === 0 ? [0, 1] : from === to ? [from - 60, to + 60] : [from, to];
  }
  const inSight = () => range ?? whole();

  /** @param {[number, number] | null} wanted */
  function setRange(wanted) {
    if (sharing) {
      return;
    }
    sharing = true;
    const [first, last] = whole();
    if (wanted) {
      const width = Math.min(Math.max(wanted[1] - wanted[0], SHORTEST_RANGE_S), last - first);
      const from = Math.min(Math.max(wanted[0], first), last - width);
      range = width >= last - first ? null : [from, from + width];
    } else {
      range = null;
    }
    const [min, max] = inSight();
    for (const plot of plots) {
      plot.setScale('x', { min, max });
    }
    sharing = false;
    listeners.forEach((listener) => listener([min, max]));
  }

  /** @param {number} factor below 1 to see less @param {number} [centre] */
  function zoom(factor, centre) {
    const [from, to] = inSight();
    const middle = centre ?? (from + to) / 2;
    setRange([middle - (middle - from) * factor, middle + (to - middle) * factor]);
  }
  /** @param {number} part of what is in sight */
  function pan(part) {
    const [from, to] = inSight();
    setRange([from + (to - from) * part, to + (to - from) * part]);
  }

  /** @param {uPlot} plot */
  function drawMarks({ ctx, bbox, valToPos }) {
    ctx.save();
    ctx.beginPath();
    ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
    ctx.clip();
    for (const { time, until, kind } of marks) {
      const x = valToPos(time, 'x', true);
      const shade = colour(kind === 'crash' || kind === 'storage' ? '--bad' : kind === 'report' || kind === 'session' ? '--quiet' : '--doubtful');
      if (until !== undefined) {
        ctx.globalAlpha = 0.12;
        ctx.fillStyle = shade;
        ctx.fillRect(x, bbox.top, valToPos(until, 'x', true) - x, bbox.height);
        ctx.globalAlpha = 1;
      }
      ctx.strokeStyle = shade;
      ctx.lineWidth = devicePixelRatio;
      ctx.setLineDash([4, 3]);
      ctx.beginPath();
      ctx.moveTo(x, bbox.top);
      ctx.lineTo(x, bbox.top + bbox.height);
      ctx.stroke();
    }
    ctx.restore();
  }

  /** @param {number} time */
  function tell(time) {
    const [from, to] = inSight();
    const reach = (to - from) * MARK_REACH;
    pointed(time, marks.filter(({ time: at, until }) => Math.abs(at - time) <= reach
      || (until !== undefined && at < time && time < until)));
  }

  /** Shows the cursor at a time. @param {number} time */
  function point(time) {
    for (const plot of plots) {
      plot.setCursor({ left: plot.valToPos(time, 'x'), top: 0 });
    }
  }

  window.matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
    for (const plot of plots) {
      plot.redraw(false);
    }
  });

  return {
    setRange,
    zoom,
    pan,
    inSight,
    point,
    /** @param {(range: [number, number]) => void} listener */
    onRange(listener) {
      listeners.add(listener);
      return () => listeners.delete(listener);
    },
    /** @param {Mark[]} next */
    setMarks(next) {
      marks = next;
      setRange(range);
      for (const plot of plots) {
        plot.redraw(false);
      }
    },
    /**
     * A chart of some series.
     * @param {string} label for those who can't see it
     * @param {(index: number | null) => void} onIndex of the values under the cursor
     */
    createChart(label, onIndex) {
      const place = el('div', {
        class: 'plot', tabindex: 0, role: 'img',
        'aria-label': `Chart of ${label}. Arrow keys move the cursor, plus and minus zoom, Page Up and Page Down move, Home shows all.`,
      });
      /** @type {uPlot | null} */
      let plot = null;
      /** @type {Series[]} */
      let shown = [];

      /** @param {KeyboardEvent} event */
      function onKey(event) {
        if (!plot || event.ctrlKey || event.altKey || event.metaKey) {
          return;
        }
        const times = plot.data[0];
        const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
        if (step) {
          const [from, to] = inSight();
          const at = plot.cursor.idx ?? (step > 0 ? -1 : times.length);
          let next = Math.min(Math.max(at + step, 0), times.length - 1);
          const time = times[next] ?? 0;
          if (time < from || time > to) {
            next = times.findIndex((one) => one >= from);
          }
          point(times[next] ?? time);
          tell(times[next] ?? time);
        } else if (event.key === '+' || event.key === '-') {
          const { left } = plot.cursor;
          zoom(event.key === '+' ? 1 / ZOOM : ZOOM, left !== undefined && left >= 0 ? plot.posToVal(left, 'x') : undefined);
        } else if (event.key === 'PageUp' || event.key === 'PageDown') {
          pan(event.key === 'PageUp' ? -PAN : PAN);
        } else if (event.key === 'Home') {
          setRange(null);
        } else {
          return;
        }
        event.preventDefault();
      }
      place.addEventListener('keydown', onKey);
      place.addEventListener('wheel', (event) => {
        if (plot && event.ctrlKey) {
          event.preventDefault();
          zoom(event.deltaY < 0 ? 1 / ZOOM : ZOOM, plot.posToVal(event.clientX - plot.over.getBoundingClientRect().left, 'x'));
        }
      }, { passive: false });
      // With the shift key the time line is dragged along.
      place.addEventListener('mousedown', (event) => {
        if (!plot || !event.shiftKey) {
          return;
        }
        event.preventDefault();
        event.stopPropagation();
        const [from, to] = inSight();
        const scale = (to - from) / plot.over.clientWidth;
        const move = (/** @type {MouseEvent} */ moved) => {
          const by = (event.clientX - moved.clientX) * scale;
          setRange([from + by, to + by]);
        };
        const end = () => {
          removeEventListener('mousemove', move);
          removeEventListener('mouseup', end);
        };
        addEventListener('mousemove', move);
        addEventListener('mouseup', end);
      }, { capture: true });
      const observer = new ResizeObserver(() => {
        if (plot && place.clientWidth > 0) {
          plot.setSize({ width: place.clientWidth, height: HEIGHT });
        }
      });
      observer.observe(place);

      /** @param {(series: Series, index: number) => boolean} visible */
      function build(visible) {
        const quiet = () => colour('--quiet');
        const grid = { stroke: () => colour('--line'), width: 1 };
        const [only] = shown;
        const categories = shown.length === 1 ? only?.categories : null;
        plot = new uPlot({
          width: Math.max(place.clientWidth, 200),
          height: HEIGHT,
          tzDate: (time) => uPlot.tzDate(new Date(time * 1000), 'Etc/UTC'),
          legend: { show: false },
          cursor: {
            sync: { key, setSeries: false, filters: { pub: (type) => type === 'mousemove' } },
            drag: { x: true, y: false, setScale: false }, focus: { prox: 16 },
          },
          scales: { x: { time: true } },
          axes: [
            { stroke: quiet, grid, ticks: grid, values: wallAxis, space: 80 },
            {
              stroke: quiet, grid, ticks: grid, size: 80,
              values: (_, splits) => splits.map((split) => (categories ? categories[split] ?? '' : numberText(split))),
              ...(categories ? { splits: () => categories.map((__, index) => index) } : {}),
            },
          ],
          series: [{}, ...shown.map((series, index) => ({
            label: series.name, show: visible(series, index), width: 1.5, ...lookOf(index),
            ...(series.categories ? { paths: uPlot.paths.stepped?.({ align: 1 }) } : {}),
          }))],
          hooks: {
            draw: [drawMarks],
            setCursor: [(self) => {
              onIndex(self.cursor.idx ?? null);
              const { left } = self.cursor;
              if (left !== undefined && left >= 0 && self.over.matches(':hover')) {
                tell(self.posToVal(left, 'x'));
              }
            }],
            setSelect: [(self) => {
              const { left, width } = self.select;
              if (width > 0) {
                setRange([self.posToVal(left, 'x'), self.posToVal(left + width, 'x')]);
                self.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
              }
            }],
          },
        }, aligned(shown), place);
        plot.over.addEventListener('dblclick', () => setRange(null));
        plots.add(plot);
        Object.assign(place, { plot });
      }

      return {
        element: place,
        /** @param {Series[]} series @param {(series: Series, index: number) => boolean} visible */
        show(series, visible) {
          this.remove();
          shown = series;
          build(visible);
          setRange(range);
        },
        /** @param {number} index @param {boolean} visible */
        setVisible(index, visible) {
          plot?.setSeries(index + 1, { show: visible });
        },
        /** The value of a series, at an index that onIndex told. @param {number} series @param {number | null} index */
        valueAt: (series, index) => (index === null ? null : plot?.data[series + 1]?.[index]),
        remove() {
          if (plot) {
            plots.delete(plot);
            plot.destroy();
            plot = null;
          }
        },
      };
    },
  };
}

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
