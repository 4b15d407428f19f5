// End-to-end walk of the trace server with the published protocol client:
// health, experiments, outputs, table columns and lines of an MTB, a TDF and
// an ETB capture. Any answer the client cannot use fails the run.
//
// usage: node e2e.mjs <base-url> <tdf-capture-dir>
import assert from 'node:assert/strict';
import tsp from 'tsp-typescript-client';

const { HttpTspClient, Query } = tsp;
const [baseUrl, tdfDir] = process.argv.slice(2);
if (!baseUrl || !tdfDir) {
  console.error('usage: node e2e.mjs <base-url> <tdf-capture-dir>');
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

// The TDF recording lies in the file-target tree: open it by hand.
const trace = modelOf(await client.openTrace(new Query({ uri: tdfDir, name: 'recording' })), 'open trace');
assert.equal(trace.path, tdfDir);
const tdf = modelOf(
  await client.createExperiment(new Query({ name: 'recording', traces: [trace.UUID] })),
  'create experiment');

const experiments = modelOf(await client.fetchExperiments(), 'experiments');
const byName = Object.fromEntries(experiments.map((e) => [e.name, e]));
for (const e of experiments) {
  assert.equal(e.indexingStatus, 'COMPLETED', `${e.name}: indexing status`);
  const again = modelOf(await client.fetchExperiment(e.UUID), `experiment ${e.name}`);
  assert.equal(again.UUID, e.UUID);
}
const mtb = byName['Cortex_M4_0_CoreTrace'];
const etb = byName['Cortex_M3_2_CoreTrace'];
assert.ok(mtb, 'the MTB experiment is listed');
assert.ok(etb, 'the ETB experiment is listed');
assert.ok(byName[tdf.name], 'the TDF experiment is listed');

await checkTable(mtb, ['Seq.', 'Discontinuity', 'PC', 'Function', 'File', 'Line', 'Source', 'Asm', 'Dir']);
await checkTable(etb, ['Seq.', 'PC', 'Opcode', 'Function', 'File', 'Line', 'Source', 'Asm', 'Dir', 'Cycles']);
const tdfColumns = modelOf(
  await client.fetchTableColumns(tdf.UUID,
    modelOf(await client.experimentOutputs(tdf.UUID), 'tdf outputs')[0].id, new Query({})),
  'tdf columns').model.map((c) => c.name);
await checkTable(tdf, tdfColumns);

const markers = await client.fetchMarkerSets(mtb.UUID);
assert.ok(markers.isOk(), 'marker sets');

const closed = modelOf(await client.deleteExperiment(tdf.UUID), 'delete experiment');
assert.equal(closed.indexingStatus, 'CLOSED');
console.log('e2e: all answers usable');
