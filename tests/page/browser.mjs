// A headless Chromium, led over the pipe of its DevTools protocol.
import {spawn} from 'node:child_process';
import {mkdtempSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';

export class Browser {
  static async start(program) {
    const browser = new Browser(program);
    const {targetId} =
        await browser.send('Target.createTarget', {url: 'about:blank'});
    const {sessionId} = await browser.send(
        'Target.attachToTarget', {targetId, flatten: true});
    browser.session = sessionId;
    for (const domain of ['Page', 'Runtime', 'Log', 'Network', 'Audits'])
      await browser.send(domain + '.enable');
    return browser;
  }

  // What the page asked for, complained of and tried to open.
  requests = [];
  complaints = [];

  constructor(program) {
    this.folder = mkdtempSync(join(tmpdir(), 'page-test-'));
    // Chromium's sandbox does not work for root.
    const sandbox = process.getuid() === 0 ? ['--no-sandbox'] : [];
    this.child = spawn(
        program,
        ['--headless', ...sandbox, '--disable-gpu', '--hide-scrollbars',
         '--disable-dev-shm-usage', '--remote-debugging-pipe',
         '--force-color-profile=srgb', '--user-data-dir=' + this.folder,
         'about:blank'],
        {stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe']});
    this.child.on('error', (error) => this.end(error));
    this.child.on('exit', () => this.end(new Error('the browser has gone')));
    this.input = this.child.stdio[3];
    let rest = Buffer.alloc(0);
    this.child.stdio[4].on('data', (bytes) => {
      rest = Buffer.concat([rest, bytes]);
      for (let end; (end = rest.indexOf(0)) >= 0; rest = rest.subarray(end + 1))
        this.take(JSON.parse(rest.subarray(0, end).toString()));
    });
  }

  waiting = new Map();
  events = new Map();
  number = 0;

  send(method, params = {}) {
    const id = ++this.number;
    const message = {id, method, params, sessionId: this.session};
    this.input.write(JSON.stringify(message) + '\0');
    return new Promise(
        (resolve, reject) => this.waiting.set(id, {resolve, reject, method}));
  }

  take({id, result, error, method, params}) {
    if (id !== undefined) {
      const waiting = this.waiting.get(id);
      this.waiting.delete(id);
      if (error === undefined) return waiting.resolve(result);
      return waiting.reject(new Error(`${waiting.method}: ${error.message}`));
    }
    if (method === 'Network.requestWillBeSent')
      this.requests.push(params.request.url);
    if (method === 'Runtime.exceptionThrown')
      this.complaints.push(params.exceptionDetails);
    if (method === 'Log.entryAdded') this.complaints.push(params.entry);
    if (method === 'Audits.issueAdded' &&
        params.issue.code === 'ContentSecurityPolicyIssue')
      this.complaints.push(params.issue);
    if (method === 'Page.javascriptDialogOpening')
      this.complaints.push(params.message);
    this.events.get(method)?.(params);
    this.events.delete(method);
  }

  end(error) {
    for (const {reject} of this.waiting.values()) reject(error);
    this.waiting.clear();
  }

  async open(url) {
    const loaded = new Promise(
        (resolve) => this.events.set('Page.loadEventFired', resolve));
    await this.send('Page.navigate', {url});
    await loaded;
  }

  // evaluate gives the value of a function that runs in the page.
  async evaluate(body, ...values) {
    const words = values.map((value) => JSON.stringify(value)).join();
    return this.evaluateText(`(${body})(${words})`);
  }

  async evaluateText(expression) {
    const {result, exceptionDetails} = await this.send(
        'Runtime.evaluate',
        {expression, returnByValue: true, awaitPromise: true});
    if (exceptionDetails === undefined) return result.value;
    throw new Error(exceptionDetails.exception?.description ??
                    exceptionDetails.text);
  }

  async look(width, height, scheme, media = '') {
    await this.send(
        'Emulation.setDeviceMetricsOverride',
        {width, height, deviceScaleFactor: 1, mobile: width < 500});
    await this.send('Emulation.setEmulatedMedia', {
      media,
      features: [{name: 'prefers-color-scheme', value: scheme}],
    });
  }

  async screenshot() {
    const {data} = await this.send('Page.captureScreenshot', {format: 'png'});
    return Buffer.from(data, 'base64');
  }

  async close() {
    const gone = new Promise((resolve) => this.child.on('exit', resolve));
    await this.send('Browser.close').catch(() => {});
    await gone;
    rmSync(this.folder, {recursive: true, force: true});
  }
}
