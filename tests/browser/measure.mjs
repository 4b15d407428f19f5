// Click-to-drawn-chart of one power capture in headless chromium: opening
// the power view, then zooming into a tenth of it by dragging, each a few
// times; prints the median of each beside a baseline of the same run: one
// protocol round trip from the page (GET /tsp/api/health). For figures on captures too large for
// the test run (see docs/viewer.md).
//
// usage: node measure.mjs <base-url> <experiment name> [runs]
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import puppeteer from 'puppeteer-core';

const [baseUrl, name, runs = '5'] = process.argv.slice(2);
if (!baseUrl || !name) {
  console.error('usage: node measure.mjs <base-url> <experiment name> [runs]');
  process.exit(2);
}
const profile = mkdtempSync(join(tmpdir(), 'ostrand-chromium-'));
const browser = await puppeteer.launch({
  executablePath: '/usr/bin/chromium', headless: true, userDataDir: profile,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
const page = await browser.newPage();
await page.setViewport({ width: 1400, height: 900 });
await page.goto(baseUrl, { waitUntil: 'load' });
await page.waitForSelector('.experiment');
const nextDraw = () => page.evaluate(() => new Promise((resolve) => {
  const began = performance.now();
  document.addEventListener('ostrand:drawn', () => resolve(performance.now() - began), { once: true });
}));
const open = [];
const zoom = [];
// Each action starts from a view at rest: the summary of the last range,
// which the server computes after the chart, has been answered.
const rest = () => new Promise((resolve) => { setTimeout(resolve, 1500); });
for (let i = 0; i < Number(runs); ++i) {
  await page.evaluate(() => { location.hash = ''; });
  await rest();
  const drawn = nextDraw();
  await page.evaluate((n) => [...document.querySelectorAll('.experiment')]
    .find((b) => b.querySelector('h3').textContent.endsWith(n))
    .querySelector('button[data-output="power"]').click(), name);
  open.push(await drawn);
  await rest();
  const over = await (await page.$('.chart .u-over')).boundingBox();
  const y = over.y + over.height / 2;
  const zoomed = nextDraw();
  await page.mouse.move(over.x + over.width * 0.3, y);
  await page.mouse.down();
  await page.mouse.move(over.x + over.width * 0.4, y, { steps: 4 });
  await page.mouse.up();
  zoom.push(await zoomed);
  await rest();
}
const health = [];
for (let i = 0; i < 15; ++i) {
  health.push(await page.evaluate(async () => {
    const began = performance.now();
    await (await fetch('/tsp/api/health')).text();
    return performance.now() - began;
  }));
}
await browser.close();
rmSync(profile, { recursive: true, force: true });
const median = (xs) => xs.slice().sort((a, b) => a - b)[Math.floor(xs.length / 2)].toFixed(0);
console.log(`baseline: one protocol round trip ${median(health)} ms (median of ${health.length})`);
console.log(`${name}: open ${median(open)} ms, zoom ${median(zoom)} ms (median of ${runs}; `
  + `open ${open.map((x) => x.toFixed(0)).join(' ')}; zoom ${zoom.map((x) => x.toFixed(0)).join(' ')})`);
