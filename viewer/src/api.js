// The viewer's client of the Trace Server Protocol. Every read goes through
// the same routes under /tsp/api that any other client uses; the page is
// served by the same server, so requests are same-origin and carry no
// headers of their own beyond the JSON content type.

const base = '/tsp/api';

// A request the server refused or could not answer. `message` is a sentence
// for the user; the server's error pages carry only the status, and the
// exception text (when there is one) comes in the EXCEPTION_WHAT header.
export class ServerError extends Error {
  constructor(what, status, detail) {
    const why = status === 0 ? 'could not reach the trace server' : `the server answered ${status}`;
    super(`${what}: ${why}${detail ? ` (${detail})` : ''}`);
    this.status = status;
  }
}

async function request(method, path, body, what) {
  let res;
  try {
    res = await fetch(base + path, {
      method,
      headers: body === undefined ? {} : { 'Content-Type': 'application/json' },
      body: body === undefined ? undefined : JSON.stringify(body),
    });
  } catch (e) {
    throw new ServerError(what, 0, e.message);
  }
  if (!res.ok) {
    const detail = res.headers.get('EXCEPTION_WHAT');
    await res.text();
    throw new ServerError(what, res.status, detail && decodeURIComponent(detail));
  }
  const text = await res.text();
  if (text === '') return null;
  try {
    return JSON.parse(text);
  } catch (e) {
    throw new ServerError(what, res.status, `not JSON: ${e.message}`);
  }
}

const exp = (uuid) => `/experiments/${encodeURIComponent(uuid)}`;
const out = (uuid, kind, id) =>
  `${exp(uuid)}/outputs/${kind ? `${kind}/` : ''}${encodeURIComponent(id)}`;

export const api = {
  experiments: () => request('GET', '/experiments', undefined, 'Listing the experiments'),

  // Asks the server to scan its data tree for new captures. "Nothing new"
  // comes back as 400 and is no failure here: the experiments that exist were
  // refreshed instead.
  async rescan() {
    try {
      await request('POST', '/experiments', { parameters: { name: 'LiveTarget', traces: [] } },
        'Scanning for new captures');
    } catch (e) {
      if (e.status !== 400) throw e;
    }
  },

  outputs: (uuid) => request('GET', `${exp(uuid)}/outputs`, undefined, 'Listing the outputs'),

  columns: (uuid, id) =>
    request('POST', `${out(uuid, 'table', id)}/columns`, { parameters: {} }, 'Reading the columns'),

  lines: (uuid, id, index, count) =>
    request('POST', `${out(uuid, 'table', id)}/lines`,
      { parameters: { requested_table_index: index, requested_table_count: count } },
      `Reading lines ${index} to ${index + count - 1}`),

  xyTree: (uuid, id, start, end) =>
    request('POST', `${out(uuid, 'XY', id)}/tree`,
      { parameters: { requested_timerange: { start, end } } }, 'Reading the summary'),

  xy: (uuid, id, start, end, nbTimes, items) =>
    request('POST', `${out(uuid, 'XY', id)}/xy`,
      { parameters: { requested_timerange: { start, end, nbTimes }, requested_items: items } },
      'Reading the chart points'),

  timeGraphTree: (uuid, id, start, end) =>
    request('POST', `${out(uuid, 'timeGraph', id)}/tree`,
      { parameters: { requested_timerange: { start, end } } }, 'Reading the state graph rows'),

  states: (uuid, id, start, end, nbTimes, items) =>
    request('POST', `${out(uuid, 'timeGraph', id)}/states`,
      { parameters: { requested_timerange: { start, end, nbTimes }, requested_items: items } },
      'Reading the states'),

  arrows: (uuid, id, start, end) =>
    request('POST', `${out(uuid, 'timeGraph', id)}/arrows`,
      { parameters: { requested_timerange: { start, end, nbTimes: 1 } } }, 'Reading the arrows'),

  tooltip: (uuid, id, element, items) =>
    request('POST', `${out(uuid, 'timeGraph', id)}/tooltip`,
      { parameters: { requested_element: element, requested_times: [element.time],
        requested_items: items } }, 'Reading the tooltip'),

  styles: (uuid, id) =>
    request('POST', `${out(uuid, '', id)}/style`, { parameters: {} }, 'Reading the styles'),
};
