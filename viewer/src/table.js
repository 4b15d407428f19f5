// A table output: its columns, and only the lines in view, fetched in pages
// of 200 lines as they scroll into view. A table of millions of lines costs
// the page what a screenful costs.
//
// A browser cannot make an element as tall as millions of rows, so past
// kMaxScrollPixels the scroll range is scaled: the scroll position is read
// as a fraction of the table, and the rows in view are drawn over it.
import { api } from './api.js';
import { el, formatCount } from './dom.js';

const kPageLines = 200;
const kMaxScrollPixels = 4_000_000;
const kPagesKept = 40;

// Columns that hold code, and the widths that make their usual text readable.
const mono = new Set(['Source', 'Asm', 'PC', 'Address', 'Dir', 'DSR0', 'DSR1']);
const widths = {
  'Seq.': 90, Discontinuity: 95, PC: 110, Function: 180, File: 170, Line: 60, Source: 340,
  Asm: 240, Dir: 260, Time: 130, Energy: 120, Current: 110, Voltage: 100, DSR0: 110, DSR1: 110,
};
const widthOf = (name) => widths[name] ?? Math.max(100, Math.min(260, name.length * 10 + 40));

export async function openTable(view, experiment, output) {
  const columnsAnswer = await api.columns(experiment.UUID, output.id);
  const columns = columnsAnswer.model;
  const first = await api.lines(experiment.UUID, output.id, 0, kPageLines);
  return new TableView(view, experiment, output, columns, first.model);
}

class TableView {
  constructor(view, experiment, output, columns, firstPage) {
    this.uuid = experiment.UUID;
    this.outputId = output.id;
    this.columns = columns;
    this.size = firstPage.size;
    this.pages = new Map([[0, firstPage.lines]]);
    this.pending = new Set();
    this.selected = -1;
    this.closed = false;
    this.rowHeight = 22;
    this.template = columns.map((c) => `${widthOf(c.name)}px`).join(' ');

    const jump = el('input', { type: 'number', min: '0', placeholder: 'line index', 'aria-label': 'Line index' });
    const go = el('button', { type: 'button' }, 'Go to line');
    const goTo = () => {
      const index = Number.parseInt(jump.value, 10);
      if (Number.isFinite(index)) this.jumpTo(index);
    };
    go.addEventListener('click', goTo);
    jump.addEventListener('keydown', (e) => { if (e.key === 'Enter') goTo(); });
    this.message = el('span', { class: 'note' });
    const head = el('div', { class: 'table-head' },
      ...columns.map((c) => el('div', { title: c.description || c.name }, c.name)));
    head.style.gridTemplateColumns = this.template;
    this.rows = el('div', { class: 'table-rows' });
    this.spacer = el('div');
    this.scroller = el('div', { class: 'table-scroller', tabindex: '0', 'data-size': String(this.size) },
      head, this.spacer, this.rows);
    this.detail = el('div', { class: 'detail' });
    view.append(
      el('h2', {}, `${experiment.name}: ${output.name}`),
      el('div', { class: 'toolbar' }, `${formatCount(this.size)} lines`, jump, go, this.message),
      this.scroller, this.detail);
    if (this.size === 0) this.message.textContent = 'This table has no lines.';

    const totalWidth = columns.reduce((sum, c) => sum + widthOf(c.name), 0);
    this.rows.style.width = `${totalWidth}px`;
    this.spacer.style.width = `${totalWidth}px`;
    // One row of slack, so the last line can scroll fully into view.
    this.spacer.style.height = `${Math.min(this.size * this.rowHeight, kMaxScrollPixels) + this.rowHeight}px`;
    this.onScroll = () => this.render();
    this.scroller.addEventListener('scroll', this.onScroll, { passive: true });
    this.scroller.addEventListener('keydown', (e) => this.onKey(e));
    this.rows.addEventListener('click', (e) => {
      const row = e.target.closest('.table-row');
      if (row) this.select(Number(row.dataset.index));
    });
    this.resize = new ResizeObserver(() => this.render());
    this.resize.observe(this.scroller);
    this.render();
  }

  close() {
    this.closed = true;
    this.resize.disconnect();
  }

  visibleCount() {
    return Math.max(1, Math.ceil((this.scroller.clientHeight - this.rowHeight) / this.rowHeight));
  }

  // Whether the scroll range stands for the table scaled down.
  scaled() {
    return this.size * this.rowHeight > kMaxScrollPixels;
  }

  // The first line in view, from the scroll position: a row per rowHeight,
  // or in a scaled table the same fraction of the lines as of the range.
  firstIndex() {
    const last = Math.max(0, this.size - this.visibleCount());
    if (!this.scaled()) return Math.min(last, Math.floor(this.scroller.scrollTop / this.rowHeight));
    const range = this.scroller.scrollHeight - this.scroller.clientHeight;
    return Math.round(Math.min(1, this.scroller.scrollTop / Math.max(1, range)) * last);
  }

  scrollTopFor(index) {
    if (!this.scaled()) return index * this.rowHeight;
    const last = Math.max(1, this.size - this.visibleCount());
    const range = this.scroller.scrollHeight - this.scroller.clientHeight;
    return (Math.min(index, last) / last) * range;
  }

  jumpTo(index) {
    if (this.size === 0) return;
    const line = Math.max(0, Math.min(this.size - 1, index));
    this.scroller.scrollTop = this.scrollTopFor(line);
    this.select(line);
    this.render();
  }

  onKey(e) {
    const step = { ArrowDown: 1, ArrowUp: -1, PageDown: this.visibleCount(), PageUp: -this.visibleCount() }[e.key];
    if (step === undefined || this.selected < 0) return;
    e.preventDefault();
    const line = Math.max(0, Math.min(this.size - 1, this.selected + step));
    const first = this.firstIndex();
    if (line < first || line >= first + this.visibleCount()) {
      this.scroller.scrollTop = this.scrollTopFor(Math.max(0, line - (step > 0 ? this.visibleCount() - 1 : 0)));
    }
    this.select(line);
  }

  lineAt(index) {
    if (index < 0) return undefined;
    return this.pages.get(Math.floor(index / kPageLines))?.[index % kPageLines];
  }

  // Draws the lines in view; asks for the pages it lacks.
  render() {
    if (this.closed) return;
    const first = this.firstIndex();
    const count = Math.min(this.visibleCount(), Math.max(0, this.size - first));
    this.scroller.dataset.firstIndex = String(first);
    // The rows cover the visible part of the scroller and no more: a layer
    // reaching below it would lengthen the scroll range it is drawn from.
    this.rows.style.top = `${this.scroller.scrollTop + this.rowHeight}px`;
    this.rows.style.height = `${Math.max(0, this.scroller.clientHeight - this.rowHeight)}px`;
    const rows = [];
    let missing = 0;
    for (let i = first; i < first + count; ++i) {
      const line = this.lineAt(i);
      if (!line) ++missing;
      const row = el('div', { class: `table-row${line ? '' : ' pending'}${i === this.selected ? ' selected' : ''}`,
        'data-index': String(i) },
        ...this.columns.map((c, k) => {
          const text = line ? (line.cells[k]?.content ?? '') : (k === 0 ? '…' : '');
          return el('div', { class: mono.has(c.name) ? 'mono' : '', title: text }, text);
        }));
      row.style.gridTemplateColumns = this.template;
      rows.push(row);
    }
    this.rows.replaceChildren(...rows);
    this.scroller.dataset.complete = missing === 0 ? 'true' : 'false';
    if (count > 0) {
      for (let p = Math.floor(first / kPageLines); p <= Math.floor((first + count - 1) / kPageLines); ++p) {
        this.fetchPage(p);
      }
    }
  }

  async fetchPage(page) {
    if (this.pages.has(page) || this.pending.has(page)) return;
    this.pending.add(page);
    try {
      const answer = await api.lines(this.uuid, this.outputId, page * kPageLines, kPageLines);
      if (this.closed) return;
      this.pages.set(page, answer.model.lines);
      // Keep the cache bounded: the pages fetched longest ago go first.
      while (this.pages.size > kPagesKept) this.pages.delete(this.pages.keys().next().value);
      this.message.textContent = '';
      this.render();
      if (this.selected >= 0 && Math.floor(this.selected / kPageLines) === page) this.showDetail();
    } catch (e) {
      this.message.textContent = e.message;
      this.message.className = 'error';
    } finally {
      this.pending.delete(page);
    }
  }

  select(index) {
    this.selected = index;
    for (const row of this.rows.children) {
      row.classList.toggle('selected', Number(row.dataset.index) === index);
    }
    this.showDetail();
  }

  // The selected line's cells side by side, whole and readable: for an
  // instruction trace the function, file, line, source text and disassembly.
  showDetail() {
    const line = this.lineAt(this.selected);
    this.detail.replaceChildren();
    if (!line) return;
    this.detail.append(...this.columns.map((c, k) => el('div', { class: 'cell' },
      el('b', {}, c.name),
      el('span', { class: mono.has(c.name) ? 'mono' : '' }, line.cells[k]?.content ?? ''))));
  }
}
