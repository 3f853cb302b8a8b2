// Usage: node check_page.mjs PAGE.html RESULT.json BIG.html FOLDER
// Reads the page that velcheck wrote beside a result as its readers do, in
// Chromium, and holds it against the result. BIG.html is one of 5,000 results,
// for its speed alone. Screenshots go into FOLDER.
import assert from 'node:assert/strict';
import {readFileSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {join, resolve} from 'node:path';
import {pathToFileURL} from 'node:url';

import {Browser} from './browser.mjs';

const axe = readFileSync(
    createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const [page, resultFile, bigPage, folder] = process.argv.slice(2);
const result = JSON.parse(readFileSync(resultFile, 'utf8'));
const url = pathToFileURL(resolve(page)).href;

// What cannot be seen is shown by its number.
const unseen = /[\u0000-\u001F\u007F-\u009F\u200B-\u200F\u2028-\u202E\u2060-\u206F]/g;
const visible = (text) => text.replace(
    unseen,
    (c) => `[U+${c.charCodeAt(0).toString(16).toUpperCase().padStart(4, '0')}]`);
const words = (text) => visible(text).replace(/\s+/g, ' ').trim();

function expectedCells() {
  return result.servers.map((row) => {
    const server = row.port === 3241 ? row.server : `${row.server}:${row.port}`;
    return [words(`${row.agent} ${row.domain}`), words(server), row.result,
            words(row.text), words(row.advice)].join(' | ');
  }).sort();
}

// Runs in the page.
function readCells() {
  const words = (element) =>
      (element?.textContent ?? '').replace(/\s+/g, ' ').trim();
  const table = document.getElementById('pairs');
  const heads = [...table.tHead.rows[0].cells].map(words);
  return [...table.tBodies[0].rows].flatMap((row) => {
    const agent = words(row.cells[0]);
    return [...row.cells].slice(1).flatMap(
        (cell, i) => [...cell.querySelectorAll('.result')].map((one) => [
          agent, heads[i + 1],
          words(one.querySelector('.badge')).replace(/^\S+ /, ''),
          words(one.querySelector('p')), words(one.querySelector('.advice')),
        ].join(' | ')));
  }).sort();
}

function shownRows() {
  return [...document.querySelectorAll('#pairs tbody tr')]
      .filter((row) => row.offsetHeight > 0)
      .map((row) => row.cells[0].textContent);
}

async function choose(browser, id, value) {
  await browser.evaluate((id, value) => {
    const element = document.getElementById(id);
    element.value = value;
    element.dispatchEvent(new Event('input', {bubbles: true}));
    return new Promise((done) => requestAnimationFrame(
        () => requestAnimationFrame(() => done())));
  }, id, value);
  return browser.evaluate(shownRows);
}

async function checkLook(browser, width, scheme) {
  await browser.look(width, 900, scheme);
  await browser.open(url);
  writeFileSync(join(folder, `${width}-${scheme}.png`),
                await browser.screenshot());
  const overflow = await browser.evaluate(
      () => document.documentElement.scrollWidth - innerWidth);
  assert.ok(overflow <= 0, `${overflow} pixels beyond a width of ${width}`);
  await browser.evaluateText(axe);
  const {violations, passes} = await browser.evaluateText('axe.run()');
  assert.ok(passes.length > 10, 'the accessibility checker found no page');
  assert.deepEqual(
      violations.map(({id, help, nodes}) => ({id, help, at: nodes[0].html})),
      []);
}

async function checkScript(browser) {
  const all = await browser.evaluate(shownRows);
  const agents = (test) => new Set(result.servers.filter(test).map(
      (row) => words(`${row.agent} ${row.domain}`)));
  const failed = agents((row) => row.result !== 'accepted');
  const isSame = (rows, set) => assert.deepEqual(
      rows.map(words).sort(), [...set].sort());
  isSame(await choose(browser, 'show', '!accepted'), failed);
  isSame(await choose(browser, 'show', 'refused'),
         agents((row) => row.result === 'refused'));
  await choose(browser, 'show', '');
  isSame(await choose(browser, 'find', 'NO NODE'),
         agents((row) => row.text.includes('No Node')));
  assert.deepEqual(await choose(browser, 'find', ''), all);
  // Those in trouble come first.
  assert.ok(all.slice(0, failed.size).every((row) => failed.has(words(row))));
  const byName = await choose(browser, 'order', 'name');
  const collator = new Intl.Collator('en', {numeric: true});
  assert.deepEqual(byName, [...all].sort(collator.compare));
  assert.deepEqual(await choose(browser, 'order', 'trouble'), all);
  const text = await browser.evaluate(() => {
    const link = document.querySelector('#reasons a');
    link.click();
    return link.textContent;
  });
  const rows = await browser.evaluate(shownRows);
  isSame(rows, agents((row) => words(row.text) === words(text)));
}

// Neither a name nor an attacker who got an element in runs anything.
async function checkPolicy(browser) {
  const requests = [...browser.requests];
  const before = browser.complaints.length;
  const ran = await browser.evaluate(() => {
    const script = document.createElement('script');
    script.textContent = 'window.injected = true';
    document.body.append(script);
    const image = document.createElement('img');
    image.src = 'data:image/gif;base64,R0lGODlhAQABAAAAACw=';
    document.body.append(image);
    return window.injected ?? window.hacked ?? false;
  });
  assert.equal(ran, false);
  await new Promise((done) => setTimeout(done, 200));
  assert.ok(browser.complaints.length > before, 'the policy stopped nothing');
  browser.complaints.length = before;
  browser.requests = requests;
}

async function checkWithoutScript(browser) {
  await browser.send('Emulation.setScriptExecutionDisabled', {value: true});
  await browser.open(url);
  assert.deepEqual(await browser.evaluate(readCells), expectedCells());
  const tools = () => document.getElementById('tools').offsetHeight;
  assert.equal(await browser.evaluate(tools), 0);
  await browser.send('Emulation.setScriptExecutionDisabled', {value: false});
  await browser.look(1000, 900, 'dark', 'print');
  await browser.open(url);
  assert.equal(await browser.evaluate(tools), 0);
  const {data} = await browser.send('Page.printToPDF', {});
  assert.ok(data.length > 10000);
}

// From a key to the next picture, for whoever watches; the load of the host
// decides too, so nothing is asserted.
async function tellSpeed(browser) {
  await browser.look(1400, 900, 'light');
  await browser.open(pathToFileURL(resolve(bigPage)).href);
  const times = await browser.evaluate(async () => {
    const find = document.getElementById('find');
    const times = [];
    for (const value of ['7', '77', '777', '']) {
      const start = performance.now();
      find.value = value;
      find.dispatchEvent(new Event('input', {bubbles: true}));
      await new Promise((done) => requestAnimationFrame(
          () => requestAnimationFrame(() => done())));
      times.push(Math.round(performance.now() - start));
    }
    const {length} = document.querySelectorAll('#pairs .result');
    return {results: length, milliseconds: times};
  });
  console.log('filtering takes', JSON.stringify(times));
}

const browser = await Browser.start(process.env.CHROMIUM ?? 'chromium');
try {
  for (const width of [1400, 800, 390]) {
    for (const scheme of ['light', 'dark'])
      await checkLook(browser, width, scheme);
  }
  await browser.look(1400, 900, 'light');
  await browser.open(url);
  assert.deepEqual(await browser.evaluate(readCells), expectedCells());
  await checkScript(browser);
  await checkPolicy(browser);
  await checkWithoutScript(browser);
  assert.deepEqual(browser.complaints, []);
  assert.deepEqual([...new Set(browser.requests)], [url]);
  await tellSpeed(browser);
  console.log(`${result.servers.length} cells read back`);
} finally {
  await browser.close();
}
