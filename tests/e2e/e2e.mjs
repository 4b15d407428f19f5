// End-to-end walk of the trace server with the published protocol client:
// health, experiments, outputs, table columns and lines of an MTB, a TDF and
// an ETB capture, and every output of the power captures (time graph, XY,
// data tree, table). Any answer the client cannot use fails the run.
//
// usage: node e2e.mjs <base-url> <tdf-capture-dir> [<power experiment name>...]
//        node e2e.mjs <base-url> - <kind>:<experiment name>...
//   A power experiment name ending in "_WL++" has state words: it must
//   offer a time graph. A <tdf-capture-dir> of "-" walks what captures
//   taken through the module left, as the module's own server serves them:
//   it asks for the scan of the live targets as a viewer does, then walks
//   each named experiment by its kind (mtb, etb or wl); for tdf the name is
//   the capture directory, opened by hand.
import assert from 'node:assert/strict';
import tsp from 'tsp-typescript-client';

const { HttpTspClient, Query, QueryHelper } = tsp;
const [baseUrl, tdfDir, ...powerNames] = process.argv.slice(2);
if (!baseUrl || !tdfDir) {
  console.error('usage: node e2e.mjs <base-url> <tdf-capture-dir> [<power experiment name>...]');
  process.exit(2);
}
const client = new HttpTspClient(`${baseUrl}/tsp/api`);

// The model of a response the client accepted: status 200, JSON content type,
// and a body its normalizers could read.
function modelOf(response, what) {
  assert.ok(response.isOk(), `${what}: status ${response.getStatusCode()} ${response.getStatusMessage()}`);
  const model = response.getModel();
  assert.ok(model !== undefined && model !== null, `${what}: no model the client could read`);
  return model;
}

// An id the client can use: a plain integer (the normalizers only check
// that it is a number).
function assertId(value, what) {
  assert.ok(Number.isInteger(value), `${what}: id ${value} is not an integer`);
}

// A time the client can use: the normalizers made it a BigInt, which they
// can only do from an integer; a time left as a number was not normalized.
function assertTime(value, what) {
  assert.equal(typeof value, 'bigint', `${what}: time ${value} is not an integer`);
}

// The entries of a tree: integer ids, each once, with labels (no more than
// the headers name, when there are headers), and parent links that end at a
// root: a parent that is no entry (-1, or 0 where no entry 0 exists) makes
// the entry a top-level one for a viewer, but a loop would hang it.
function checkTree(model, what) {
  const { entries } = model;
  assert.ok(Array.isArray(entries) && entries.length > 0, `${what}: empty tree`);
  const byId = new Map();
  for (const e of entries) {
    assertId(e.id, what);
    assertId(e.parentId, what);
    assert.ok(!byId.has(e.id), `${what}: id ${e.id} twice`);
    byId.set(e.id, e);
    assert.ok(Array.isArray(e.labels) && e.labels.length > 0, `${what}: entry ${e.id} without labels`);
    for (const label of e.labels) assert.equal(typeof label, 'string', `${what}: label of ${e.id}`);
    if (model.headers?.length) {
      assert.ok(e.labels.length <= model.headers.length, `${what}: entry ${e.id} has more labels than headers`);
    }
  }
  for (const e of entries) {
    let at = e;
    for (let depth = 0; byId.has(at.parentId); ++depth) {
      assert.ok(depth < entries.length, `${what}: entry ${e.id} lies on a parent loop`);
      at = byId.get(at.parentId);
    }
  }
  return new Set(byId.keys());
}

// A time graph: the tree, the states of every entry over the whole range
// (some must exist: the capture has state words), the styles the states
// refer to, and the arrows between entries of the tree.
async function checkTimeGraph(experiment, output) {
  const what = `${experiment.name} ${output.name}`;
  const { start, end } = experiment;
  const tree = modelOf(
    await client.fetchTimeGraphTree(experiment.UUID, output.id, QueryHelper.timeRangeQuery(start, end)),
    `${what} tree`).model;
  const ids = checkTree(tree, `${what} tree`);
  for (const e of tree.entries) {
    assertTime(e.start, `${what} entry ${e.id} start`);
    assertTime(e.end, `${what} entry ${e.id} end`);
  }

  const rows = modelOf(
    await client.fetchTimeGraphStates(experiment.UUID, output.id,
      QueryHelper.selectionTimeRangeQuery(start, end, 1000, [...ids])),
    `${what} states`).model.rows;
  const styles = modelOf(
    await client.fetchStyles(experiment.UUID, output.id, QueryHelper.query()), `${what} styles`).model;
  assert.ok(styles && typeof styles.styles === 'object', `${what}: no style table`);
  let states = 0;
  for (const row of rows) {
    assertId(row.entryId, `${what} row`);
    assert.ok(ids.has(row.entryId), `${what}: row of unknown entry ${row.entryId}`);
    for (const s of row.states) {
      assertTime(s.start, `${what} state start`);
      assertTime(s.end, `${what} state end`);
      assert.ok(s.start <= s.end, `${what}: state ends before it starts`);
      assert.ok(s.end >= start && s.start <= end, `${what}: state outside the range`);
      const key = s.style?.parentKey;
      if (key) assert.ok(key in styles.styles, `${what}: state style ${key} is not in the style table`);
      ++states;
    }
  }
  assert.ok(states > 0, `${what}: no states although the capture has state words`);

  const arrows = modelOf(
    await client.fetchTimeGraphArrows(experiment.UUID, output.id,
      QueryHelper.timeRangeQuery(start, end, 1000)),
    `${what} arrows`).model;
  assert.ok(Array.isArray(arrows), `${what}: arrows are no list`);
  // Each walk of the mode history starts from nowhere: its first arrow
  // comes from -1, the root that is never sent.
  for (const a of arrows) {
    assertId(a.sourceId, `${what} arrow`);
    assertId(a.targetId, `${what} arrow`);
    assert.ok(a.sourceId === -1 || ids.has(a.sourceId), `${what}: arrow from unknown entry ${a.sourceId}`);
    assert.ok(ids.has(a.targetId), `${what}: arrow to unknown entry ${a.targetId}`);
    assertTime(a.start, `${what} arrow start`);
    assertTime(a.end, `${what} arrow end`);
  }
  console.log(`ok   ${what}: ${ids.size} entries, ${states} states, ${arrows.length} arrows, ` +
    `${Object.keys(styles.styles).length} styles`);
}

// An XY graph: the tree, then the series of every entry over the whole
// range, which must hold points (the capture has samples everywhere).
async function checkXY(experiment, output) {
  const what = `${experiment.name} ${output.name}`;
  const { start, end } = experiment;
  const tree = modelOf(
    await client.fetchXYTree(experiment.UUID, output.id, QueryHelper.timeRangeQuery(start, end)),
    `${what} tree`).model;
  const ids = checkTree(tree, `${what} tree`);
  const series = modelOf(
    await client.fetchXY(experiment.UUID, output.id,
      QueryHelper.selectionTimeRangeQuery(start, end, 2000, [...ids])),
    `${what} xy`).model.series;
  assert.ok(series.length > 0, `${what}: no series`);
  let points = 0;
  for (const s of series) {
    assertId(s.seriesId, `${what} series`);
    assert.ok(ids.has(s.seriesId), `${what}: series of unknown entry ${s.seriesId}`);
    assert.ok(s.xValues.length > 0, `${what}: empty series ${s.seriesId} where data exists`);
    assert.equal(s.xValues.length, s.yValues.length, `${what}: x and y counts differ`);
    // The current graph's x values are record indices: integers, rising,
    // inside the stream.
    s.xValues.forEach((x, k) => {
      assertTime(x, `${what} x`);
      assert.ok(x >= 0n && x < BigInt(experiment.nbEvents), `${what}: x ${x} outside the stream`);
      if (k > 0) assert.ok(x > s.xValues[k - 1], `${what}: x values out of order`);
    });
    for (const y of s.yValues) assert.ok(Number.isFinite(y), `${what}: y ${y} is no finite number`);
    points += s.xValues.length;
  }
  console.log(`ok   ${what}: ${ids.size} entries, ${series.length} series, ${points} points`);
}

// A data tree: its tree, which the protocol serves under the XY route.
async function checkDataTree(experiment, output) {
  const what = `${experiment.name} ${output.name}`;
  const tree = modelOf(
    await client.fetchXYTree(experiment.UUID, output.id,
      QueryHelper.timeRangeQuery(experiment.start, experiment.end)),
    `${what} tree`).model;
  const ids = checkTree(tree, `${what} tree`);
  // Rows with data carry a value, and a number in it, not "nan" or "inf".
  const rows = tree.entries.filter((e) => e.hasData);
  assert.ok(rows.length > 0, `${what}: no rows with data`);
  for (const e of rows) {
    assert.ok(e.labels.length >= 2 && /\d/.test(e.labels[1]), `${what}: ${e.labels[0]} has no value`);
    assert.ok(!/nan|inf/i.test(e.labels[1]), `${what}: ${e.labels[0]} is ${e.labels[1]}`);
  }
  console.log(`ok   ${what}: ${ids.size} entries`);
}

// Every output of a power experiment, each by its family.
async function checkPower(experiment) {
  const what = experiment.name;
  assert.equal(experiment.indexingStatus, 'COMPLETED', `${what}: indexing status`);
  assertTime(experiment.start, `${what} start`);
  assertTime(experiment.end, `${what} end`);
  assert.ok(experiment.nbEvents > 0 && experiment.end > experiment.start, `${what}: no records`);
  const outputs = modelOf(await client.experimentOutputs(experiment.UUID), `outputs of ${what}`);
  const types = outputs.map((o) => o.type).sort();
  const withStates = what.endsWith('_WL++');
  assert.deepEqual(types,
    (withStates ? ['DATA_TREE', 'TABLE', 'TIME_GRAPH', 'TREE_TIME_XY'] : ['DATA_TREE', 'TABLE', 'TREE_TIME_XY']),
    `${what}: output types`);
  for (const output of outputs) {
    if (output.type === 'TIME_GRAPH') await checkTimeGraph(experiment, output);
    if (output.type === 'TREE_TIME_XY') await checkXY(experiment, output);
    if (output.type === 'DATA_TREE') await checkDataTree(experiment, output);
  }
  const table = outputs.find((o) => o.type === 'TABLE');
  const columns = modelOf(await client.fetchTableColumns(experiment.UUID, table.id, new Query({})),
    `${what} columns`).model.map((c) => c.name);
  await checkTable(experiment, columns);
}

async function checkTable(experiment, expectedColumns) {
  const outputs = modelOf(await client.experimentOutputs(experiment.UUID), `outputs of ${experiment.name}`);
  const table = outputs.find((o) => o.type === 'TABLE');
  assert.ok(table, `${experiment.name}: no TABLE output`);

  const columns = modelOf(
    await client.fetchTableColumns(experiment.UUID, table.id, new Query({})),
    `columns of ${experiment.name}`).model;
  assert.deepEqual(columns.map((c) => c.name), expectedColumns, `${experiment.name}: column names`);
  const columnIds = columns.map((c) => Number(c.id));

  const first = modelOf(
    await client.fetchTableLines(experiment.UUID, table.id,
      new Query({ requested_table_index: 0, requested_table_count: 200, requested_table_column_ids: columnIds })),
    `lines of ${experiment.name}`).model;
  const size = Number(first.size);
  assert.ok(size > 0, `${experiment.name}: empty table`);
  assert.equal(first.lines.length, Math.min(200, size), `${experiment.name}: line count`);
  assert.deepEqual(first.columnIds.map(Number), columnIds, `${experiment.name}: columnIds`);
  first.lines.forEach((line, k) => {
    assert.equal(Number(line.index), k, `${experiment.name}: line index`);
    assert.equal(line.cells.length, columns.length, `${experiment.name}: cells per line`);
    for (const cell of line.cells) assert.equal(typeof cell.content, 'string');
  });

  // The last page: lines stop at the end, size stays the total.
  const low = Math.max(0, size - 3);
  const last = modelOf(
    await client.fetchTableLines(experiment.UUID, table.id,
      new Query({ requested_table_index: low, requested_table_count: 200 })),
    `last lines of ${experiment.name}`).model;
  assert.equal(Number(last.lowIndex), low);
  assert.equal(Number(last.size), size);
  assert.equal(last.lines.length, size - low);
  console.log(`ok   ${experiment.name}: ${columns.length} columns, ${size} lines`);
}

const health = modelOf(await client.checkHealth(), 'health');
assert.equal(health.status, 'UP');

const mtbColumns = ['Seq.', 'Discontinuity', 'PC', 'Function', 'File', 'Line', 'Source', 'Asm', 'Dir'];
const etbColumns = ['Seq.', 'PC', 'Opcode', 'Function', 'File', 'Line', 'Source', 'Asm', 'Dir', 'Cycles'];
const liveOnly = tdfDir === '-';
if (liveOnly) {
  // A viewer's first request: scan the live targets (400 when the scan found
  // nothing new, which is no failure).
  await client.createExperiment(new Query({ name: 'LiveTarget', traces: [] }));
}
let tdf;
if (!liveOnly) {
  // The TDF recording lies in the file-target tree: open it by hand.
  const trace = modelOf(await client.openTrace(new Query({ uri: tdfDir, name: 'recording' })), 'open trace');
  assert.equal(trace.path, tdfDir);
  tdf = modelOf(
    await client.createExperiment(new Query({ name: 'recording', traces: [trace.UUID] })),
    'create experiment');
}

const experiments = modelOf(await client.fetchExperiments(), 'experiments');
const byName = Object.fromEntries(experiments.map((e) => [e.name, e]));
for (const e of experiments) {
  assert.equal(e.indexingStatus, 'COMPLETED', `${e.name}: indexing status`);
  const again = modelOf(await client.fetchExperiment(e.UUID), `experiment ${e.name}`);
  assert.equal(again.UUID, e.UUID);
}
let mtb;
if (!liveOnly) {
  mtb = byName['Cortex_M4_0_CoreTrace'];
  const etb = byName['Cortex_M3_2_CoreTrace'];
  assert.ok(mtb, 'the MTB experiment is listed');
  assert.ok(etb, 'the ETB experiment is listed');
  assert.ok(byName[tdf.name], 'the TDF experiment is listed');

  await checkTable(mtb, mtbColumns);
  await checkTable(etb, etbColumns);
  const tdfColumns = modelOf(
    await client.fetchTableColumns(tdf.UUID,
      modelOf(await client.experimentOutputs(tdf.UUID), 'tdf outputs')[0].id, new Query({})),
    'tdf columns').model.map((c) => c.name);
  await checkTable(tdf, tdfColumns);
}

for (const arg of powerNames) {
  const [kind, name] = liveOnly ? arg.split(/:(.*)/s) : ['wl', arg];
  if (kind !== 'tdf') {
    assert.ok(byName[name], `the ${kind} experiment ${name} is listed (have: ${Object.keys(byName).join(', ')})`);
  }
  const experiment = byName[name];
  if (kind === 'wl') {
    await checkPower(experiment);
  } else if (kind === 'mtb' || kind === 'etb') {
    await checkTable(experiment, kind === 'mtb' ? mtbColumns : etbColumns);
  } else if (kind === 'tdf') {
    // A TDF capture lies in the file-target tree, which the live scan does
    // not reach: open it by hand, as the viewer opens a recording.
    const trace = modelOf(await client.openTrace(new Query({ uri: name, name: 'recording' })), 'open TDF trace');
    const experiment = modelOf(
      await client.createExperiment(new Query({ name: 'recording', traces: [trace.UUID] })), 'TDF experiment');
    const outputs = modelOf(await client.experimentOutputs(experiment.UUID), `outputs of ${name}`);
    const columns = modelOf(await client.fetchTableColumns(experiment.UUID, outputs[0].id, new Query({})),
      `columns of ${name}`).model.map((c) => c.name);
    for (const c of ['Function', 'File', 'Dir']) assert.ok(columns.includes(c), `${name}: no ${c} column`);
    await checkTable(experiment, columns);
  } else {
    assert.fail(`unknown kind ${kind} in ${arg}; say mtb, etb, tdf or wl`);
  }
}

if (!liveOnly) {
  const markers = await client.fetchMarkerSets(mtb.UUID);
  assert.ok(markers.isOk(), 'marker sets');

  const closed = modelOf(await client.deleteExperiment(tdf.UUID), 'delete experiment');
  assert.equal(closed.indexingStatus, 'CLOSED');
}
console.log('e2e: all answers usable');
