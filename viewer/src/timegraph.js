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

export class StateGraph {
  // The tree, the styles and the arrows are read once; the states per range.
  static async open(experiment, output) {
    const { UUID: uuid, start, end } = experiment;
    const [tree, styles, arrows] = await Promise.all([
      api.timeGraphTree(uuid, output.id, start, end),
      api.styles(uuid, output.id),
      api.arrows(uuid, output.id, start, end),
    ]);
    return new StateGraph(uuid, output, tree.model, styles.model.styles, arrows.model ?? []);
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

  setStates(rows) {
    this.rows = new Map(rows.map((r) => [r.entryId, r.states]));
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
    const inView = this.arrows.filter((a) => a.start >= start && a.start <= end && a.sourceId >= 0
      && this.rowOf.has(a.sourceId) && this.rowOf.has(a.targetId));
    this.note.textContent = inView.length > kMaxArrows
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
