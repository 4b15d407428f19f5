// The power view of a Wattline experiment: the current over time as a line
// chart, the power-mode and peripheral time graph under it on the same time
// axis, and the summary of the visible range.
//
// Every zoom or pan asks the server for just the points of the visible
// range (it thins them to about 2000), so the view costs the same on a
// capture of any length. The line graph answers record indices; the
// server finds an index from a time by assuming even sample spacing over
// the experiment's range, and the chart maps back the same way.
import uPlot from './lib/uPlot.esm.js';
import { api } from './api.js';
import { el, formatSeconds, showError } from './dom.js';
import { StateGraph } from './timegraph.js';
import { Summary } from './summary.js';

// Narrowest range the view zooms to, in microseconds.
const kMinSpan = 10;

function formatCurrent(nA) {
  if (nA === null || nA === undefined) return '';
  const abs = Math.abs(nA);
  if (abs >= 1e6) return `${(nA / 1e6).toFixed(abs >= 1e8 ? 0 : 2)} mA`;
  if (abs >= 1e3) return `${(nA / 1e3).toFixed(abs >= 1e5 ? 0 : 2)} µA`;
  return `${Math.round(nA)} nA`;
}

export async function openPower(view, experiment, outputs) {
  const line = outputs.find((o) => o.type === 'TREE_TIME_XY');
  const states = outputs.find((o) => o.type === 'TIME_GRAPH');
  const summary = outputs.find((o) => o.type === 'DATA_TREE');
  const power = new PowerView(view, experiment, line);
  if (experiment.nbEvents === 0 || experiment.end <= experiment.start) {
    showError(power.body, 'This capture holds no records: there is nothing to draw.');
    return power;
  }
  const [graph, sum] = await Promise.all([
    states ? StateGraph.open(experiment, states) : null,
    summary ? Summary.open(experiment, summary) : null,
  ]);
  power.attach(graph, sum);
  await power.show(experiment.start, experiment.end);
  return power;
}

class PowerView {
  constructor(view, experiment, line) {
    this.experiment = experiment;
    this.line = line;
    this.seq = 0;
    this.closed = false;
    this.range = { start: experiment.start, end: experiment.end };
    this.body = el('div', { class: 'power' });
    this.rangeText = el('span', { class: 'note' });
    const button = (text, title, action) => {
      const b = el('button', { type: 'button', title }, text);
      b.addEventListener('click', action);
      return b;
    };
    this.toolbar = el('div', { class: 'toolbar' },
      button('−', 'Zoom out (or turn the wheel)', () => this.zoom(2)),
      button('+', 'Zoom in (or drag across the chart)', () => this.zoom(0.5)),
      button('◀', 'Pan left (or Shift + wheel, or the arrow keys)', () => this.pan(-0.25)),
      button('▶', 'Pan right', () => this.pan(0.25)),
      button('Whole capture', 'Show the whole capture', () => this.show(experiment.start, experiment.end)),
      this.rangeText);
    view.append(el('h2', {}, `${experiment.name}: power`), this.toolbar, this.body);
    this.view = view;
  }

  attach(graph, summary) {
    this.graph = graph;
    this.summary = summary;
    if (graph) graph.origin = this.experiment.start;
    const width = Math.max(400, this.body.clientWidth - 2);
    const toTime = (x) => this.experiment.start + x * 1e6;
    this.chartBox = el('div', { class: 'chart' });
    this.body.append(this.chartBox);
    if (graph) this.body.append(graph.element, graph.note);
    if (summary) this.body.append(summary.element);
    if (!this.line) {
      showError(this.chartBox, 'This experiment has no current graph.');
      return;
    }
    this.chart = new uPlot({
      width,
      height: 280,
      scales: { x: { time: false, range: () => [this.toX(this.range.start), this.toX(this.range.end)] } },
      series: [
        { label: 'Time', value: (u, v) => (v === null ? '' : formatSeconds(v * 1e6)) },
        { label: 'Current', stroke: '#1f6feb', width: 1, value: (u, v) => formatCurrent(v) },
      ],
      axes: [
        { label: 'Time since the start (s)' },
        { size: 110, values: (u, vals) => vals.map(formatCurrent) },
      ],
      legend: { live: true },
      cursor: { drag: { x: true, y: false, setScale: false } },
      hooks: {
        setSelect: [(u) => {
          if (u.select.width > 3) {
            this.show(toTime(u.posToVal(u.select.left, 'x')),
              toTime(u.posToVal(u.select.left + u.select.width, 'x')));
          }
          u.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
        }],
        draw: [() => this.drawn()],
      },
    }, [[], []], this.chartBox);
    this.chart.over.addEventListener('wheel', (e) => {
      e.preventDefault();
      if (e.shiftKey) {
        this.pan(Math.sign(e.deltaY || e.deltaX) * 0.1);
        return;
      }
      const at = toTime(this.chart.posToVal(e.offsetX, 'x'));
      this.zoom(e.deltaY > 0 ? 1.25 : 0.8, at);
    }, { passive: false });
    this.view.tabIndex = 0;
    this.onKey = (e) => {
      const pan = { ArrowLeft: -0.1, ArrowRight: 0.1 }[e.key];
      if (pan !== undefined) this.pan(pan);
      if (e.key === '+' || e.key === '=') this.zoom(0.5);
      if (e.key === '-') this.zoom(2);
    };
    this.view.addEventListener('keydown', this.onKey);
    this.resize = new ResizeObserver(() => {
      const w = Math.max(400, this.body.clientWidth - 2);
      if (this.chart && Math.abs(this.chart.width - w) > 1) this.chart.setSize({ width: w, height: 280 });
    });
    this.resize.observe(this.body);
  }

  toX(time) {
    return (time - this.experiment.start) / 1e6;
  }

  close() {
    this.closed = true;
    this.resize?.disconnect();
    if (this.onKey) this.view.removeEventListener('keydown', this.onKey);
    this.chart?.destroy();
  }

  clamp(start, end) {
    const { start: first, end: last } = this.experiment;
    let span = Math.max(kMinSpan, Math.min(end - start, last - first));
    let s = Math.max(first, Math.min(start, last - span));
    return { start: Math.round(s), end: Math.round(Math.min(last, s + span)) };
  }

  zoom(factor, at) {
    const { start, end } = this.range;
    const center = at ?? (start + end) / 2;
    this.show(center - (center - start) * factor, center + (end - center) * factor);
  }

  pan(fraction) {
    const { start, end } = this.range;
    const shift = (end - start) * fraction;
    this.show(start + shift, end + shift);
  }

  // Asks for the points and the states of [start, end]. The chart draws as
  // soon as its points are in; the state graph follows when its states are.
  // An answer that a newer request has overtaken is dropped.
  async show(start, end) {
    const range = this.clamp(start, end);
    const seq = ++this.seq;
    const began = performance.now();
    this.range = range;
    this.rangeText.textContent = `showing ${formatSeconds(range.start - this.experiment.start)} to `
      + `${formatSeconds(range.end - this.experiment.start)}`;
    const width = this.chart ? Math.round(this.chart.bbox.width / (window.devicePixelRatio || 1)) : 1000;
    // The server answers one request at a time, and two requests on two
    // connections may reach it in either order: the states are asked for
    // only once the points are in, so they never hold up the chart.
    try {
      const xy = this.line
        ? await api.xy(this.experiment.UUID, this.line.id, range.start, range.end, width, [1]) : null;
      if (seq !== this.seq || this.closed) return;
      const fits = this.graph?.statesFit(range.start, range.end);
      const states = fits ? this.graph.fetchStates(range.start, range.end, width) : null;
      states?.catch(() => {});
      this.pendingDraw = { seq, began };
      if (this.chart) this.chart.setData(this.points(xy), true); else this.drawn();
      this.summary?.update(range.start, range.end);
      if (this.graph) {
        const rows = fits ? await states : null;
        if (seq !== this.seq || this.closed) return;
        this.graph.setStates(rows, range.start, range.end);
        this.drawGraph();
        this.graph.element.dataset.drawn = String(seq);
        if (rows) this.graph.loadArrowsOnce();
      }
    } catch (e) {
      if (seq === this.seq && !this.closed) showError(this.body, e.message);
    }
  }

  // Record indices to times, as the server's estimate maps times to indices.
  points(xy) {
    const series = xy?.model?.series?.[0];
    if (!series) return [[], []];
    const { start, end, nbEvents } = this.experiment;
    const step = (end - start) / nbEvents;
    const xs = series.xValues.map((i) => (i * step) / 1e6);
    return [xs, series.yValues];
  }

  // After the chart has drawn: the state graph follows on the chart's plot
  // area (with the states it has), and the view tells how long the click
  // took to become a chart.
  drawn() {
    if (this.graph) this.drawGraph();
    if (!this.pendingDraw) return;
    const { seq, began } = this.pendingDraw;
    this.pendingDraw = null;
    const ms = performance.now() - began;
    this.body.dataset.drawn = String(seq);
    this.view.dispatchEvent(new CustomEvent('ostrand:drawn', { bubbles: true, detail: { ms, seq } }));
  }

  drawGraph() {
    const ratio = window.devicePixelRatio || 1;
    const left = this.chart ? this.chart.bbox.left / ratio : 110;
    const width = this.chart ? this.chart.bbox.width / ratio : this.body.clientWidth - 120;
    this.graph.draw(this.range.start, this.range.end, left, width);
  }
}
