// The viewer's page: the list of experiments on the left, one view on the
// right. The address keeps the open view (#<experiment>/<output>), so a
// reload or a shared link opens it again.
import { api } from './api.js';
import { openTable } from './table.js';
import { openPower } from './power.js';
import { el, formatCount, formatSeconds, showError } from './dom.js';

const list = document.getElementById('experiments');
const view = document.getElementById('view');
const status = document.getElementById('status');

// What the list shows, and the open view (an object with close()).
const state = { experiments: [], outputs: new Map(), empty: new Set(), open: null, openKey: '' };

// The kinds of chart outputs that together make the power view, top down.
const chartTypes = ['TREE_TIME_XY', 'TIME_GRAPH', 'DATA_TREE'];
const powerKey = 'power';

// The capture kind, as the experiment's trace names it ("MTB", "ETB",
// "TDF", "Wattline"); the outputs tell where the name does not.
const kinds = new Set(['MTB', 'ETB', 'TDF', 'Wattline']);
function kindOf(experiment, outputs) {
  const named = experiment.traces.map((t) => t.name).find((n) => kinds.has(n));
  if (named) return named;
  if (outputs.some((o) => o.type === 'TREE_TIME_XY')) return 'Wattline';
  return 'Trace';
}

// Table captures count no events, so an empty one shows only through its
// table: a capture directory with metadata but no data yet (a placeholder
// written when the capture was configured) has a table of no lines.
async function isEmptyTable(experiment, outputs) {
  const table = outputs.find((o) => o.type === 'TABLE');
  if (experiment.nbEvents > 0 || !table || outputs.some((o) => o.type !== 'TABLE')) return false;
  const answer = await api.lines(experiment.UUID, table.id, 0, 0);
  return answer.model.size === 0;
}

// Wattline experiments count time in microseconds; the others count
// records and leave start and end at 0.
function rangeText(experiment, kind) {
  if (experiment.end <= experiment.start) return '';
  if (kind === 'Wattline') return `${formatSeconds(experiment.end - experiment.start)} long`;
  return `${experiment.start} to ${experiment.end}`;
}


function renderList() {
  list.replaceChildren();
  if (state.experiments.length === 0) {
    list.append(el('p', { class: 'note' },
      'No captures yet. Make one, or write sample captures with "ostrand gen", then press Refresh.'));
    return;
  }
  for (const experiment of state.experiments) {
    const outputs = state.outputs.get(experiment.UUID) ?? [];
    const kind = kindOf(experiment, outputs);
    const facts = [`${formatCount(experiment.nbEvents)} events`, rangeText(experiment, kind),
      experiment.indexingStatus].filter(Boolean).join(' · ');
    const box = el('div', { class: 'experiment', 'data-uuid': experiment.UUID },
      el('h3', {}, el('span', { class: 'kind' }, kind), experiment.name),
      el('div', { class: 'facts' }, facts));
    // A capture the server could not load is listed with the status a
    // failed load leaves and no outputs; the server's log names the reason.
    if (experiment.indexingStatus === 'RUNNING' && outputs.length === 0) {
      box.append(el('p', { class: 'note failed' },
        'Not loaded: the server could not read this capture. Its log names the file and the reason.'));
    } else if (outputs.length === 0 || state.empty.has(experiment.UUID)) {
      box.append(el('p', { class: 'note placeholder' },
        'No data in this capture yet: it is a placeholder until a capture finishes.'));
    } else if (experiment.indexingStatus !== 'COMPLETED') {
      box.append(el('p', { class: 'note' },
        `Not loaded (${experiment.indexingStatus || 'no status'}): the server could not read it.`));
    }
    for (const output of outputs.filter((o) => o.type === 'TABLE')) {
      box.append(outputButton(experiment, output.id, `Table: ${output.name}`));
    }
    const charts = chartTypes.flatMap((type) => outputs.filter((o) => o.type === type));
    if (charts.length) {
      box.append(outputButton(experiment, powerKey, charts.map((o) => o.name).join(', ')));
    }
    list.append(box);
  }
}

function outputButton(experiment, key, label) {
  const button = el('button', { type: 'button', class: 'output', 'data-output': key }, label);
  if (state.openKey === `${experiment.UUID}/${key}`) button.classList.add('active');
  button.addEventListener('click', () => {
    location.hash = `${experiment.UUID}/${encodeURIComponent(key)}`;
  });
  return button;
}

async function loadList() {
  status.textContent = 'Loading…';
  const experiments = await api.experiments();
  const outputs = await Promise.all(experiments.map((e) => api.outputs(e.UUID).catch(() => [])));
  const empty = await Promise.all(experiments.map((e, i) => isEmptyTable(e, outputs[i]).catch(() => false)));
  state.experiments = experiments;
  state.outputs = new Map(experiments.map((e, i) => [e.UUID, outputs[i]]));
  state.empty = new Set(experiments.filter((e, i) => empty[i]).map((e) => e.UUID));
  renderList();
  status.textContent = `${experiments.length} experiment${experiments.length === 1 ? '' : 's'}`;
}

// Opens what the address names; an unknown experiment or output says so.
async function openFromHash() {
  const [uuid, rawKey] = location.hash.slice(1).split('/');
  const key = rawKey ? decodeURIComponent(rawKey) : '';
  if (state.openKey === `${uuid}/${key}` && state.open) return;
  state.open?.close();
  state.open = null;
  state.openKey = uuid ? `${uuid}/${key}` : '';
  renderList();
  view.replaceChildren();
  if (!uuid) {
    view.append(el('p', { class: 'note' }, 'Choose an output of an experiment on the left.'));
    return;
  }
  const experiment = state.experiments.find((e) => e.UUID === uuid);
  const outputs = state.outputs.get(uuid) ?? [];
  if (!experiment) {
    showError(view, 'This experiment is not on the server (any more). Press Refresh to see what is.');
    return;
  }
  try {
    if (key === powerKey) {
      state.open = await openPower(view, experiment, outputs);
    } else {
      const output = outputs.find((o) => o.id === key);
      if (!output) throw new Error(`The experiment has no output "${key}" (any more).`);
      state.open = await openTable(view, experiment, output);
    }
  } catch (e) {
    showError(view, e.message);
  }
}

document.getElementById('refresh').addEventListener('click', async () => {
  status.textContent = 'Looking for new captures…';
  try {
    await api.rescan();
    await loadList();
    state.openKey = '';
    await openFromHash();
  } catch (e) {
    status.textContent = '';
    showError(view, e.message);
  }
});

window.addEventListener('hashchange', () => openFromHash());

try {
  await loadList();
  await openFromHash();
} catch (e) {
  list.replaceChildren();
  status.textContent = '';
  showError(list, e.message);
}
