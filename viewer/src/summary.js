// The summary tree of a power capture (energy, power, voltage, current,
// battery life) with its figures, for the range the chart shows. The server
// computes the figures over that range; a new range asks again, a moment
// after the view has come to rest.
import { api } from './api.js';
import { el } from './dom.js';

const kSettleMs = 250;

export class Summary {
  static async open(experiment, output) {
    const summary = new Summary(experiment, output);
    await summary.load(experiment.start, experiment.end);
    return summary;
  }

  constructor(experiment, output) {
    this.uuid = experiment.UUID;
    this.output = output;
    this.caption = el('caption', {}, `${output.name} of the visible range`);
    this.table = el('table', {}, this.caption);
    this.element = el('div', { class: 'summary' }, this.table);
    this.seq = 0;
  }

  update(start, end) {
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.load(start, end), kSettleMs);
  }

  async load(start, end) {
    const seq = ++this.seq;
    try {
      const answer = await api.xyTree(this.uuid, this.output.id, start, end);
      if (seq === this.seq) this.render(answer.model);
    } catch (e) {
      if (seq === this.seq) this.render(null, e.message);
    }
  }

  render(model, failure) {
    const rows = [];
    if (failure) rows.push(el('tr', {}, el('td', { class: 'error', colspan: '2' }, failure)));
    if (model) {
      const headers = model.headers?.length ? model.headers : [{ name: 'Name' }, { name: 'Value' }];
      rows.push(el('tr', {}, ...headers.map((h) => el('th', { title: h.tooltip || '' }, h.name))));
      const depth = new Map();
      for (const entry of model.entries) {
        const d = depth.has(entry.parentId) ? depth.get(entry.parentId) + 1 : 0;
        depth.set(entry.id, d);
        const name = el('td', {}, entry.labels[0] ?? '');
        name.style.paddingLeft = `${0.7 + d * 1.2}em`;
        if (!entry.labels[1]) name.style.fontWeight = '600';
        rows.push(el('tr', { 'data-id': String(entry.id) }, name,
          el('td', { class: 'value' }, entry.labels[1] ?? '')));
      }
    }
    this.table.replaceChildren(this.caption, ...rows);
  }
}
