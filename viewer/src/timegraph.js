// The power-mode and peripheral time graph, drawn on a canvas under the
// current chart and on the same time axis: one row per entry of the
// server's tree, each state in the colour, opacity and height of the style
// it names, the arrows between the rows where a state follows another, and
// a tooltip for the state under the pointer.
import { api } from './api.js';
import { el, formatSeconds } from './dom.js';

const kRowHeight = 20;
// Past this many arrows in view they hide the states; the view says so.
const kMaxArrows = 3000;
// States one answer may hold; about 5 MB of JSON, a quarter second to make.
const kMaxStates = 60_000;

// The arrows of each graph, read once per page: they do not depend on the
// range, and a long capture has megabytes of them.
const arrowsRead = new Map();

export class StateGraph {
  // The tree and the styles are read once, before the first picture. The
  // states are read per range, but the server gives every change in the
  // range, however many: a probe of the first hundredth of the capture
  // tells how dense they are, and a range that would hold more than
  // kMaxStates is not asked for (the graph says to zoom in). The arrows
  // (all of them, whatever the range) are read once states are first drawn.
  static async open(experiment, output) {
    const { UUID: uuid, start, end } = experiment;
    const probeEnd = start + Math.max(1, Math.floor((end - start) / 100));
    const [tree, styles] = await Promise.all([
      api.timeGraphTree(uuid, output.id, start, end),
      api.styles(uuid, output.id),
    ]);
    const graph = new StateGraph(uuid, output, tree.model, styles.model.styles, []);
    const probe = await graph.fetchStates(start, probeEnd, 100);
    graph.learnDensity(probe, start, probeEnd);
    return graph;
  }

  // States per microsecond, all rows together; the densest answer counts.
  learnDensity(rows, start, end) {
    const count = rows.reduce((sum, r) => sum + r.states.length, 0);
    this.density = Math.max(this.density ?? 0, count / Math.max(1, end - start));
  }

  // Whether [start, end] is narrow enough to ask for its states.
  statesFit(start, end) {
    return (this.density ?? 0) * (end - start) <= kMaxStates;
  }

  loadArrowsOnce() {
    if (this.arrowsAsked) return;
    this.arrowsAsked = true;
    const key = `${this.uuid}/${this.output.id}`;
    if (!arrowsRead.has(key)) {
      arrowsRead.set(key, api.arrows(this.uuid, this.output.id, 0, 0)
        .then((answer) => (answer.model ?? []).slice().sort((a, b) => a.start - b.start)));
    }
    arrowsRead.get(key).then((arrows) => {
      this.arrows = arrows;
      this.redraw();
    }).catch((e) => {
      arrowsRead.delete(key);
      this.note.textContent = e.message;
    });
  }

  redraw() {
    if (this.frame) {
      const { start, end, left, width } = this.frame;
      this.draw(start, end, left, width);
    }
  }

  constructor(uuid, output, tree, styles, arrows) {
    this.uuid = uuid;
    this.output = output;
    this.styles = styles;
    this.arrows = arrows.slice().sort((a, b) => a.start - b.start);
    const depth = new Map();
    this.entries = tree.entries.map((e) => {
      const d = depth.has(e.parentId) ? depth.get(e.parentId) + 1 : 0;
      depth.set(e.id, d);
      return { id: e.id, label: e.labels[0] ?? '', depth: d };
    });
    this.rowOf = new Map(this.entries.map((e, i) => [e.id, i]));
    this.rows = new Map();
    this.canvas = el('canvas', { 'aria-label': 'Power modes and peripherals over time' });
    this.note = el('div', { class: 'note' });
    this.tip = el('div', { class: 'tooltip', hidden: '' });
    this.element = el('div', { class: 'stategraph' }, this.canvas, this.tip);
    this.canvas.addEventListener('mousemove', (e) => this.hover(e));
    this.canvas.addEventListener('mouseleave', () => { this.tip.hidden = true; });
    this.frame = null;
  }

  async fetchStates(start, end, nbTimes) {
    const answer = await api.states(this.uuid, this.output.id, start, end, nbTimes,
      this.entries.map((e) => e.id));
    return answer.model?.rows ?? [];
  }

  // Rows of states for the range last asked; null when it held too many.
  setStates(rows, start, end) {
    this.tooDense = rows === null;
    this.rows = new Map((rows ?? []).map((r) => [r.entryId, r.states]));
    if (rows) this.learnDensity(rows, start, end);
  }

  styleOf(state) {
    const key = state.style?.parentKey ?? '';
    return { ...(this.styles[key]?.values ?? {}), ...(state.style?.values ?? {}), name: key };
  }

  // Draws the rows for [start, end] into the plot area [left, left + width)
  // that the chart above uses, so both share one time axis.
  draw(start, end, left, width) {
    this.frame = { start, end, left, width };
    const ratio = window.devicePixelRatio || 1;
    const cssWidth = this.element.clientWidth;
    const cssHeight = Math.max(1, this.entries.length) * kRowHeight;
    this.canvas.width = Math.round(cssWidth * ratio);
    this.canvas.height = Math.round(cssHeight * ratio);
    this.canvas.style.width = `${cssWidth}px`;
    this.canvas.style.height = `${cssHeight}px`;
    const g = this.canvas.getContext('2d');
    g.setTransform(ratio, 0, 0, ratio, 0, 0);
    g.clearRect(0, 0, cssWidth, cssHeight);
    g.font = '12px system-ui, sans-serif';
    g.textBaseline = 'middle';
    const x = (t) => left + ((t - start) / (end - start)) * width;
    this.entries.forEach((entry, i) => {
      const y = i * kRowHeight;
      if (i % 2) {
        g.fillStyle = '#f7f7f9';
        g.fillRect(0, y, cssWidth, kRowHeight);
      }
      g.fillStyle = entry.depth === 0 ? '#000' : '#333';
      g.font = `${entry.depth === 0 ? '600 ' : ''}12px system-ui, sans-serif`;
      g.fillText(entry.label, 4 + entry.depth * 10, y + kRowHeight / 2, left - 8 - entry.depth * 10);
      g.save();
      g.beginPath();
      g.rect(left, y, width, kRowHeight);
      g.clip();
      for (const state of this.rows.get(entry.id) ?? []) {
        if (state.end < start || state.start > end) continue;
        const style = this.styleOf(state);
        const opacity = Number(style.opacity ?? 1);
        if (!(opacity > 0)) continue;
        const h = kRowHeight * Math.min(1, Number(style.height ?? 0.8));
        const x0 = Math.max(left, x(state.start));
        const x1 = Math.min(left + width, x(state.end));
        g.globalAlpha = opacity;
        g.fillStyle = style['background-color'] ?? '#0080ff';
        g.fillRect(x0, y + (kRowHeight - h) / 2, Math.max(1, x1 - x0), h);
      }
      g.restore();
    });
    g.globalAlpha = 1;
    this.drawArrows(g, start, end, x);
  }

  drawArrows(g, start, end, x) {
    // The arrows are sorted by time: find the first in view, take until the end.
    let lo = 0;
    let hi = this.arrows.length;
    while (lo < hi) {
      const m = (lo + hi) >> 1;
      if (this.arrows[m].start < start) lo = m + 1; else hi = m;
    }
    const inView = [];
    for (let i = lo; i < this.arrows.length && this.arrows[i].start <= end; ++i) {
      const a = this.arrows[i];
      if (a.sourceId >= 0 && this.rowOf.has(a.sourceId) && this.rowOf.has(a.targetId)) inView.push(a);
    }
    this.note.textContent = this.tooDense
      ? 'Too many state changes in this range to draw: zoom in to see the states.'
      : inView.length > kMaxArrows
        ? `${inView.length} state changes in view: zoom in to see their arrows.` : '';
    if (inView.length > kMaxArrows) return;
    g.strokeStyle = '#555';
    g.fillStyle = '#555';
    g.lineWidth = 1;
    const mid = (id) => this.rowOf.get(id) * kRowHeight + kRowHeight / 2;
    for (const arrow of inView) {
      const ax = Math.round(x(arrow.start)) + 0.5;
      const y0 = mid(arrow.sourceId);
      const y1 = mid(arrow.targetId);
      if (y0 === y1) continue;
      g.beginPath();
      g.moveTo(ax, y0);
      g.lineTo(ax, y1);
      g.stroke();
      const dir = y1 > y0 ? -1 : 1;
      g.beginPath();
      g.moveTo(ax, y1);
      g.lineTo(ax - 3, y1 + dir * 5);
      g.lineTo(ax + 3, y1 + dir * 5);
      g.fill();
    }
  }

  // The state under the pointer, if any: its row, times and style.
  stateAt(px, py) {
    const f = this.frame;
    const entry = this.entries[Math.floor(py / kRowHeight)];
    if (!f || !entry || px < f.left || px > f.left + f.width) return null;
    const t = f.start + ((px - f.left) / f.width) * (f.end - f.start);
    const slack = (2 / f.width) * (f.end - f.start);
    const states = this.rows.get(entry.id) ?? [];
    let lo = 0;
    let hi = states.length;
    while (lo < hi) {
      const m = (lo + hi) >> 1;
      if (states[m].end < t - slack) lo = m + 1; else hi = m;
    }
    const state = states[lo];
    if (!state || state.start > t + slack) return null;
    return { entry, state, time: Math.round(t) };
  }

  hover(e) {
    const box = this.canvas.getBoundingClientRect();
    const hit = this.stateAt(e.clientX - box.left, e.clientY - box.top);
    if (!hit) {
      this.tip.hidden = true;
      return;
    }
    const { entry, state } = hit;
    const style = this.styleOf(state);
    const lines = [entry.label, style.name === 'None' ? 'off' : (state.label || style.name),
      `${formatSeconds(state.start - this.originOf())} to ${formatSeconds(state.end - this.originOf())}`,
      `lasts ${formatSeconds(state.end - state.start)}`];
    this.tip.textContent = lines.join('\n');
    this.tip.style.left = `${e.clientX + 12}px`;
    this.tip.style.top = `${e.clientY + 12}px`;
    this.tip.hidden = false;
    this.askServerTooltip(hit, lines);
  }

  // The server may know more about a state; what it says is added below.
  askServerTooltip(hit, lines) {
    clearTimeout(this.tipTimer);
    this.tipTimer = setTimeout(async () => {
      try {
        const answer = await api.tooltip(this.uuid, this.output.id, {
          time: hit.time, elementType: 'state', duration: hit.state.end - hit.state.start,
          entryId: hit.entry.id, destinationId: -1 }, [hit.entry.id]);
        const extra = (answer.model ?? []).map((kv) => `${kv.key}: ${kv.value}`);
        if (extra.length && !this.tip.hidden) this.tip.textContent = [...lines, ...extra].join('\n');
      } catch {
        // The local tooltip stands on its own.
      }
    }, 150);
  }

  originOf() {
    return this.origin ?? 0;
  }
}
