// The browser viewer in a real browser (Debian's chromium, headless), against
// `ostrand demo`: the experiment list, the power view of the long Wattline
// capture (chart, state graph, tooltip, zoom, summary), an MTB table scrolled
// to a far line, and the messages for an unknown experiment and a placeholder.
// Any error in the browser's console, or a request that leaves the trace
// server, fails the run. Screenshots go to <shot-dir> for a person to look at.
//
// usage: node viewer.test.mjs <base-url> <shot-dir>
import assert from 'node:assert/strict';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import puppeteer from 'puppeteer-core';

const [baseUrl, shotDir] = process.argv.slice(2);
if (!baseUrl || !shotDir) {
  console.error('usage: node viewer.test.mjs <base-url> <shot-dir>');
  process.exit(2);
}
const origin = new URL(baseUrl).origin;
const profile = mkdtempSync(join(tmpdir(), 'ostrand-chromium-'));
const browser = await puppeteer.launch({
  executablePath: '/usr/bin/chromium',
  headless: true,
  userDataDir: profile,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  protocolTimeout: 60_000,
});

const problems = [];
const timings = {};
let passed = 0;
let failed = 0;

const page = await browser.newPage();
await page.setViewport({ width: 1400, height: 900 });
page.setDefaultTimeout(20_000);
// The one refusal the viewer expects is the rescan's "nothing new" (400 on
// POST /tsp/api/experiments); the browser logs it as a failed resource.
const expectedRefusal = (m) => /status of 400/.test(m.text())
  && m.location()?.url?.endsWith('/tsp/api/experiments');
page.on('console', (m) => {
  if (m.type() === 'error' && !expectedRefusal(m)) problems.push(`console: ${m.text()}`);
});
page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
await page.setRequestInterception(true);
page.on('request', (r) => {
  const url = r.url();
  if (url.startsWith(origin) || url.startsWith('data:')) return r.continue();
  problems.push(`request off the trace server: ${url}`);
  return r.abort();
});
// Requests the server answered with an error are the views' business (they
// must show a message), but the test counts them to match expectations.
const refused = [];
page.on('response', (r) => { if (r.status() >= 400) refused.push(`${r.status()} ${r.url()}`); });

async function step(name, body) {
  try {
    await body();
    ++passed;
    console.log(`ok - ${name}`);
  } catch (e) {
    ++failed;
    console.log(`not ok - ${name}\n  ${String(e.stack || e).split('\n').join('\n  ')}`);
    await page.screenshot({ path: join(shotDir, `failed-${passed + failed}.png`) }).catch(() => {});
  }
}

// Clicks a button inside the page and resolves with the milliseconds until
// the power view reports its chart and state graph drawn.
function clickAndTimeDraw(selector) {
  return page.evaluate((sel) => new Promise((resolve, reject) => {
    const began = performance.now();
    const timer = setTimeout(() => reject(new Error('nothing drawn within 20 s')), 20_000);
    document.addEventListener('ostrand:drawn', () => {
      clearTimeout(timer);
      resolve(performance.now() - began);
    }, { once: true });
    document.querySelector(sel).click();
  }), selector);
}

const experimentBox = (kind, nameMatch) => page.evaluateHandle((k, n) =>
  [...document.querySelectorAll('.experiment')].find((e) =>
    e.querySelector('.kind')?.textContent === k && e.querySelector('h3').textContent.includes(n)),
kind, nameMatch);

let list = [];
await step('lists the experiments of the demo with kind, range and outputs', async () => {
  await page.goto(baseUrl, { waitUntil: 'load' });
  await page.waitForSelector('.experiment');
  list = await page.$$eval('.experiment', (boxes) => boxes.map((b) => ({
    kind: b.querySelector('.kind').textContent,
    name: b.querySelector('h3').textContent,
    facts: b.querySelector('.facts').textContent,
    outputs: [...b.querySelectorAll('button.output')].map((o) => o.textContent),
  })));
  const kinds = new Set(list.map((e) => e.kind));
  for (const kind of ['MTB', 'ETB', 'TDF', 'Wattline']) assert.ok(kinds.has(kind), `no ${kind} in ${[...kinds]}`);
  const long = list.find((e) => e.name.includes('long_capture'));
  assert.ok(long, 'the long Wattline capture is listed');
  assert.match(long.facts, /6,000,000 events · 60\.000 s long · COMPLETED/);
  assert.deepEqual(long.outputs, ['Table: Records', 'Current, States, Summary']);
  await page.screenshot({ path: join(shotDir, 'experiments.png') });
});

await step('opens the long power capture: current chart, state graph and summary', async () => {
  const box = await experimentBox('Wattline', 'long_capture');
  const id = await box.evaluate((b) => b.dataset.uuid);
  timings.openMs = await clickAndTimeDraw(`.experiment[data-uuid="${id}"] button[data-output="power"]`);
  await page.waitForSelector('.stategraph[data-drawn]');
  const drawn = await page.evaluate(() => {
    const chart = document.querySelector('.chart canvas');
    const graph = document.querySelector('.stategraph canvas');
    // Coloured pixels: the states drawn in the styles' colours.
    const g = graph.getContext('2d');
    const pixels = g.getImageData(0, 0, graph.width, graph.height).data;
    let coloured = 0;
    for (let i = 0; i < pixels.length; i += 4) {
      const [r, gr, b, a] = pixels.slice(i, i + 4);
      if (a > 0 && (Math.max(r, gr, b) - Math.min(r, gr, b)) > 60) ++coloured;
    }
    return { chart: chart.width, graphHeight: graph.height, coloured,
      summary: [...document.querySelectorAll('.summary tr[data-id]')].map((r) => r.textContent) };
  });
  assert.ok(drawn.chart > 300, 'chart canvas drawn');
  assert.ok(drawn.coloured > 500, `state graph shows coloured states (${drawn.coloured} pixels)`);
  await page.waitForFunction(() => document.querySelectorAll('.summary tr[data-id]').length === 14);
  const summary = await page.$$eval('.summary tr[data-id]', (rows) => rows.map((r) => r.textContent));
  assert.match(summary[2], /^Energy-?[\d.]+ mJ$/);
  assert.match(summary[13], /^CR2032 \(220mAh\) Life\d+ day, \d+ hour, \d+ min$/);
  await page.screenshot({ path: join(shotDir, 'power.png') });
});

await step('shows a tooltip for the state under the pointer', async () => {
  const graph = await page.$('.stategraph canvas');
  const box = await graph.boundingBox();
  // Down the rows in the middle of the time axis until one has a state there.
  let shown = false;
  for (let y = box.y + 10; y < box.y + box.height && !shown; y += 20) {
    await page.mouse.move(box.x + box.width * 0.6, y);
    shown = await page.$eval('.stategraph .tooltip', (t) => !t.hidden);
  }
  assert.ok(shown, 'no tooltip on any row');
  const text = await page.$eval('.stategraph .tooltip', (t) => t.textContent);
  assert.match(text, /to .* s\nlasts /);
});

await step('zooms into the chart by dragging and asks only for the visible range', async () => {
  const before = await page.$eval('.power', () => document.querySelector('.toolbar .note').textContent);
  const over = await (await page.$('.chart .u-over')).boundingBox();
  const y = over.y + over.height / 2;
  const asked = page.waitForRequest((r) => r.url().endsWith('/xy') && r.method() === 'POST');
  const zoomed = page.evaluate(() => new Promise((resolve) => {
    const began = performance.now();
    document.addEventListener('ostrand:drawn', () => resolve(performance.now() - began), { once: true });
  }));
  await page.mouse.move(over.x + over.width * 0.40, y);
  await page.mouse.down();
  await page.mouse.move(over.x + over.width * 0.45, y, { steps: 5 });
  await page.mouse.up();
  timings.zoomMs = await zoomed;
  const range = JSON.parse((await asked).postData()).parameters.requested_timerange;
  assert.ok(range.end - range.start < 60e6 * 0.1, `asked ${range.start}..${range.end}`);
  const after = await page.$eval('.toolbar .note', (n) => n.textContent);
  assert.notEqual(after, before);
  await page.screenshot({ path: join(shotDir, 'power-zoomed.png') });
});

await step('opens an MTB table and scrolls to a far line', async () => {
  const box = await experimentBox('MTB', 'Cortex_M4_0');
  await (await box.$('button[data-output]')).click();
  await page.waitForSelector('.table-scroller[data-complete="true"] .table-row');
  const size = Number(await page.$eval('.table-scroller', (s) => s.dataset.size));
  assert.ok(size >= 10_000, `table of ${size} lines`);
  const far = size - 7;
  await page.type('.toolbar input', String(far));
  await page.keyboard.press('Enter');
  await page.waitForSelector(`.table-scroller[data-complete="true"] .table-row[data-index="${far}"].selected`);
  const detail = await page.$$eval('.detail .cell', (cells) =>
    Object.fromEntries(cells.map((c) => [c.querySelector('b').textContent, c.querySelector('span').textContent])));
  for (const column of ['Function', 'File', 'Line', 'Source', 'Asm']) assert.ok(column in detail, `no ${column}`);
  assert.notEqual(detail.Asm, '');
  await page.screenshot({ path: join(shotDir, 'mtb-table.png') });
  // The end of the table by scrolling, as a person would.
  await page.$eval('.table-scroller', (s) => { s.scrollTop = s.scrollHeight; });
  await page.waitForSelector(`.table-scroller[data-complete="true"] .table-row[data-index="${size - 1}"]`);
});

await step('says so when an experiment is unknown or still a placeholder', async () => {
  await page.evaluate(() => { location.hash = '00000000-0000-0000-0000-000000000000/power'; });
  await page.waitForFunction(() => document.querySelector('#view .error')?.textContent.includes('not on the server'));
  // `gen all` leaves MTB, ETB and TDF placeholders of one target; the ETB
  // one may claim a line it cannot give, and then only its table tells.
  const notes = await page.$$eval('.experiment', (boxes) => boxes
    .filter((b) => b.querySelector('.note.placeholder'))
    .map((b) => `${b.querySelector('.kind').textContent} ${b.querySelector('h3').textContent}`));
  for (const name of ['MTB MTBCortex_M0_1_CoreTrace', 'TDF TDFCortex_M0_1_TDF']) {
    assert.ok(notes.includes(name), `${name} not among ${notes.join('; ')}`);
  }
  await page.screenshot({ path: join(shotDir, 'messages.png') });
});

await step('picks up a refresh without errors', async () => {
  await page.click('#refresh');
  await page.waitForFunction(() => /\d+ experiments?/.test(document.querySelector('#status').textContent));
});

await step('no error in the browser console and no request off the server', async () => {
  assert.deepEqual(problems, []);
  assert.deepEqual(refused.filter((r) => !r.includes('/tsp/api/experiments')), []);
});

await browser.close();
rmSync(profile, { recursive: true, force: true });
writeFileSync(join(shotDir, 'timings.json'), JSON.stringify(timings, null, 2));
console.log(`click to drawn chart: open ${timings.openMs?.toFixed(0)} ms, zoom ${timings.zoomMs?.toFixed(0)} ms`);
// Generous bounds: a shared machine may be slow, but not seconds slow.
for (const [what, ms] of Object.entries(timings)) {
  if (ms > 3000) {
    console.log(`not ok - ${what} took ${ms.toFixed(0)} ms`);
    ++failed;
  }
}
console.log(`${passed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);
