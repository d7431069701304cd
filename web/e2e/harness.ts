// What the browser tests and the benchmark run against: a real brinmoor-server, a real
// BrinmoorMacAgent --agent-only with the fake claude and codex first on its PATH, and
// Debian's Chromium driven by puppeteer-core. Over TLS (`new World({ tls: true })`) the
// relay has a certificate from a test authority made for the run, the agent trusts that
// authority, and Chromium takes exactly that certificate's key (no switch that ignores
// every certificate error).
import { execFile, spawn, type ChildProcess, type ChildProcessByStdio } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { createRequire } from 'node:module';
import { join, resolve } from 'node:path';
import { pathToFileURL } from 'node:url';
import { promisify } from 'node:util';
import type { test as nodeTestType } from 'node:test';
import type { Browser, BrowserContext, ElementHandle, Frame, Page, Viewport } from 'puppeteer-core';
import type { Readable } from 'node:stream';

function required(name: string): string {
  const value = process.env[name];
  if (!value) throw new Error(`${name} is not set (run through ctest, or set it to the build's folder)`);
  return value;
}

// The packages are those the build installed in its own folder (nothing is installed in
// web/): $BRINMOOR_WEB_PACKAGES, by default the node_modules of the build whose binaries
// run.
export const packages = createRequire(
  resolve(process.env.BRINMOOR_WEB_PACKAGES ?? join(required('BRINMOOR_BIN_DIR'), '../web/node_modules'), 'package.json'),
);
const { default: puppeteer } = (await import(pathToFileURL(packages.resolve('puppeteer-core')).href)) as typeof import('puppeteer-core');

// A page of World.page(): what it reported that a test should not see.
export type TestPage = Page & { problems: string[] };
// What the helpers below look into: a page, or a frame in one.
export type Target = Page | Frame;

export const kToken = 'e2e-token-5f1c8a3d9b0e7264c1f5';
export const kAgentId = 'studio-mac';
// A name Chromium resolves to loopback for the page, so that the page's origin is not this
// machine's own address: such a page is a secure context only when it came over HTTPS.
export const kTestHost = 'brinmoor.test';

// Resolves with the first line of `stream` that `match` accepts; rejects at the deadline.
function waitForLine<T>(
  child: ChildProcess,
  stream: Readable,
  match: (line: string) => T | undefined,
  what: string,
  timeoutMs = 20000,
): Promise<T> {
  return new Promise((resolve, reject) => {
    let buffer = '';
    const timer = setTimeout(() => {
      stream.off('data', onData);
      reject(new Error(`no ${what} within ${timeoutMs} ms; output so far:\n${buffer}`));
    }, timeoutMs);
    const onData = (data: string) => {
      buffer += data;
      for (const line of buffer.split('\n')) {
        const found = match(line);
        if (found) {
          clearTimeout(timer);
          stream.off('data', onData);
          resolve(found);
          return;
        }
      }
    };
    stream.setEncoding('utf8');
    stream.on('data', onData);
    child.once('exit', (code) => reject(new Error(`${what}: the process ended (${code}) first; output:\n${buffer}`)));
  });
}

function stopProcess(child: ChildProcess | undefined, signal: NodeJS.Signals = 'SIGTERM'): Promise<void> {
  if (!child || child.exitCode !== null || child.signalCode !== null) return Promise.resolve();
  return new Promise((resolve) => {
    const kill = setTimeout(() => child.kill('SIGKILL'), 10000);
    child.once('exit', () => {
      clearTimeout(kill);
      resolve();
    });
    child.kill(signal);
  });
}

// A script for the fake `claude`: it asks for permission to write notes.txt through the
// approval tool its --mcp-config names (over TLS too: the tool trusts what the agent
// trusts), keeps the answer in decision.N, and writes the file only when allowed.
export const kAskingClaude = `decision=$("$BRINMOOR_TEST_HELPER" mcp-call "$config" Write '{"file_path":"notes.txt","content":"remember the milk"}')
print -r -- "$decision" > $dir/decision.$n
if [[ $decision == *'"behavior":"allow"'* ]]; then
  print -r -- written > notes.txt
  answer='Wrote notes.txt.'
else
  answer='I was not allowed to write notes.txt.'
fi
{ print -r -- '{"type":"assistant","message":{"content":[{"type":"text","text":"'$answer'"}]}}'
  print -r -- '{"type":"result","subtype":"success","is_error":false,"result":"'$answer'"}'
} > $dir/$name.$n.stream
`;

// Puts the keyboard in the terminal once xterm.js is in the page: the view draws its head
// first and opens xterm.js in the effect after.
export async function focusTerminal(page: Page) {
  await page.waitForSelector('.xterm-helper-textarea');
  await page.focus('.xterm-helper-textarea');
}

interface WorldOptions {
  host?: string;
  tls?: boolean;
  relayEnv?: Record<string, string>;
  networkEnabled?: boolean;
  taps?: boolean;
}

export class World {
  // Set by the constructor.
  declare host: string;
  declare taps: boolean;
  declare networkEnabled: boolean;
  declare tls: boolean;
  declare relayEnv: Record<string, string>;
  declare bin: string;
  declare fakeTools: string;
  declare helper: string;
  declare root: string;
  declare repo: string;
  declare project: string;
  declare fake: string;
  declare relayLog: string;
  // Set by start().
  declare agentLog: string;
  declare spki?: string;
  declare authority?: string;
  declare relayProcessEnv: NodeJS.ProcessEnv;
  declare port: number;
  declare origin: string;
  declare relayURL: string;
  declare browserArgs: string[];
  declare browsers: Browser[];
  declare browser: Browser;
  declare relay?: ChildProcessByStdio<null, Readable, null>;
  declare agent?: ChildProcessByStdio<null, Readable, Readable>;

  // host: the name the page is opened at (127.0.0.1, or kTestHost); tls: whether the relay
  // speaks HTTPS and WSS; relayEnv: settings of the relay beyond port, address and token;
  // networkEnabled: whether DevTools follows the pages' network traffic (the tests that
  // watch the socket or take the network away need it); taps: whether the relay serves the
  // client built with the tests' taps, or the one it ships.
  constructor({ host = '127.0.0.1', tls = false, relayEnv = {}, networkEnabled = true, taps = true }: WorldOptions = {}) {
    this.host = host;
    this.taps = taps;
    this.networkEnabled = networkEnabled;
    this.tls = tls;
    this.relayEnv = relayEnv;
    this.bin = required('BRINMOOR_BIN_DIR');
    this.fakeTools = required('BRINMOOR_FAKE_TOOLS_DIR');
    this.helper = join(this.bin, 'brinmoor_test_helper');
    this.root = mkdtempSync(join(tmpdir(), 'brinmoor-web-e2e-'));
    this.repo = join(this.root, 'repo');
    this.project = join(this.repo, 'App');
    this.fake = join(this.root, 'fake');
    for (const dir of [this.project, this.fake, join(this.root, 'config'), join(this.root, 'tmp')]) {
      mkdirSync(dir, { recursive: true });
    }
    writeFileSync(join(this.project, 'Package.swift'), '// swift-tools-version:5.9\n');
    this.relayLog = '';
  }

  async start() {
    // Whatever ends this process ends the relay and the agent with it.
    process.once('exit', () => {
      for (const child of [this.agent, this.relay]) if (child && child.exitCode === null) child.kill('SIGKILL');
    });
    for (const signal of ['SIGINT', 'SIGTERM']) process.once(signal, () => process.exit(1));
    const relayEnv: NodeJS.ProcessEnv = {
      ...process.env,
      // The page's name is one the relay answers to, as a user would list it.
      ...(this.host === kTestHost ? { BRINMOOR_ALLOWED_HOSTS: kTestHost } : {}),
      ...this.relayEnv,
      BRINMOOR_SHARED_TOKEN: kToken,
      BRINMOOR_SERVER_PORT: '0',
      BRINMOOR_SERVER_BIND: '127.0.0.1',
    };
    const browserArgs: string[] = [];
    if (this.tls) {
      const dir = join(this.root, 'tls');
      mkdirSync(dir);
      const made = await promisify(execFile)(this.helper, ['certificates', dir, `DNS:${kTestHost}`, 'IP:127.0.0.1']);
      this.spki = made.stdout.trim();
      this.authority = join(dir, 'root.pem');
      Object.assign(relayEnv, { BRINMOOR_TLS_CERT: join(dir, 'server.pem'), BRINMOOR_TLS_KEY: join(dir, 'server-key.pem') });
      browserArgs.push(`--ignore-certificate-errors-spki-list=${this.spki}`);
    }
    if (this.host === kTestHost) browserArgs.push(`--host-resolver-rules=MAP ${kTestHost} 127.0.0.1`);
    this.relayProcessEnv = relayEnv;
    this.port = await this.spawnRelay(relayEnv);
    const scheme = this.tls ? 'https' : 'http';
    this.origin = `${scheme}://${this.host}:${this.port}`;
    // The agent runs on this machine and takes the relay's loopback address.
    this.relayURL = `${scheme}://127.0.0.1:${this.port}`;
    await this.startAgent();
    this.browserArgs = browserArgs;
    this.browsers = [];
    this.browser = await this.launchBrowser();
  }

  // A Chromium for the pages, with switches beyond the ones every test uses; closed when
  // the world stops.
  async launchBrowser(extraArgs: string[] = []): Promise<Browser> {
    const browser = await puppeteer.launch({
      executablePath: process.env.BRINMOOR_CHROMIUM ?? '/usr/bin/chromium',
      headless: true,
      networkEnabled: this.networkEnabled,
      userDataDir: join(this.root, `chromium-${this.browsers.length}`),
      args: [
        '--headless',
        '--no-sandbox',
        '--disable-gpu',
        '--disable-quic',
        '--no-first-run',
        '--disable-background-networking',
        '--disable-component-update',
        '--disable-sync',
        '--disable-dev-shm-usage',
        ...this.browserArgs,
        ...extraArgs,
      ],
    });
    this.browsers.push(browser);
    return browser;
  }

  async startAgent() {
    this.agent = spawn(join(this.bin, 'BrinmoorMacAgent'), ['--agent-only'], {
      env: {
        ...process.env,
        PATH: `${this.fakeTools}:${process.env.PATH}`,
        XDG_CONFIG_HOME: join(this.root, 'config'),
        XDG_STATE_HOME: join(this.root, 'state'),
        // The assistants keep their sessions here, not in the home folder of whoever runs the tests.
        CLAUDE_CONFIG_DIR: join(this.root, 'claude'),
        CODEX_HOME: join(this.root, 'codex'),
        BRINMOOR_SERVER_URL: this.relayURL,
        ...(this.authority ? { BRINMOOR_TLS_CA: this.authority } : {}),
        BRINMOOR_AGENT_ID: kAgentId,
        BRINMOOR_SHARED_TOKEN: kToken,
        BRINMOOR_REPO_ROOT: this.repo,
        BRINMOOR_PROJECTS: this.project,
        BRINMOOR_FAKE_DIR: this.fake,
        BRINMOOR_TEST_HELPER: this.helper,
        TMPDIR: join(this.root, 'tmp'),
      },
      stdio: ['ignore', 'pipe', 'pipe'],
    });
    this.agentLog = '';
    this.agent.stdout.setEncoding('utf8');
    this.agent.stderr.setEncoding('utf8');
    this.agent.stdout.on('data', (data: string) => (this.agentLog += data));
    this.agent.stderr.on('data', (data: string) => (this.agentLog += data));
    await this.waitFor(() => this.relayLog.includes(`agent.register agentId=${kAgentId}\n`), 'the agent to register');
  }

  // Waits for a condition outside the page (a file, a log line) with a deadline, looking
  // again every 20 ms.
  async waitFor(condition: () => unknown, what: string, timeoutMs = 20000) {
    const deadline = Date.now() + timeoutMs;
    while (!condition()) {
      if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
      await new Promise((resolve) => setTimeout(resolve, 20));
    }
  }

  // A fresh page at phone size (or the given viewport), recording what the page's
  // policy refused and every uncaught error.
  async page(
    viewport: Viewport = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: true, hasTouch: true },
    context: BrowserContext = this.browser.defaultBrowserContext(),
  ): Promise<TestPage> {
    const page = (await context.newPage()) as TestPage;
    await page.setViewport(viewport);
    // BRINMOOR_WEB_COLOR_SCHEME=dark shows every page as a browser in dark mode does.
    const scheme = process.env.BRINMOOR_WEB_COLOR_SCHEME;
    if (scheme) await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: scheme }]);
    page.problems = [];
    page.on('pageerror', (error) => page.problems.push('page error: ' + (error as Error).message));
    page.on('console', (message) => {
      if (message.type() === 'error') page.problems.push('console error: ' + message.text());
    });
    // Reported to this process, so that what happened before a reload is kept too.
    await page.exposeFunction('brinmoorPolicyViolation', (text: string) => page.problems.push('policy: ' + text));
    await page.evaluateOnNewDocument(() => {
      document.addEventListener('securitypolicyviolation', (event) => {
        window.brinmoorPolicyViolation(
          `${event.violatedDirective} ${event.blockedURI} ${event.sourceFile}:${event.lineNumber}:${event.columnNumber} ${event.sample}`,
        );
      });
    });
    return page;
  }

  fakeFile(name: string, content: string) {
    writeFileSync(join(this.fake, name), content);
  }

  readFake(name: string) {
    return readFileSync(join(this.fake, name), 'utf8');
  }

  // The arguments of the N-th call of a fake tool.
  fakeArgs(tool: string, call: number) {
    return readFileSync(join(this.fake, `${tool}.${call}.args`), 'utf8')
      .split('\0')
      .slice(0, -1);
  }

  // Kills the relay (SIGKILL, as a crash), runs `whileDown`, and starts it again on the
  // same port; the agent finds it by itself.
  async restartRelay(whileDown: () => unknown) {
    const old = this.relay!;
    const gone = new Promise((resolve) => old.once('exit', resolve));
    old.kill('SIGKILL');
    await gone;
    await whileDown();
    await this.spawnRelay({ ...this.relayProcessEnv, BRINMOOR_SERVER_PORT: String(this.port) });
  }

  // Starts the relay with this environment, its output added to relayLog; the port it
  // listens on. Unless told otherwise, it serves the client built with the taps the tests
  // and the benchmark read (BUILD/web/dist-taps), not the one it ships.
  async spawnRelay(env: NodeJS.ProcessEnv): Promise<number> {
    const client = resolve(process.env.BRINMOOR_TEST_WEB_ROOT ?? join(this.bin, '../web/dist-taps'));
    if (this.taps && !existsSync(join(client, 'index.html')))
      throw new Error(`no client with the test taps in ${client}; build first (scripts/build)`);
    this.relay = spawn(join(this.bin, 'brinmoor-server'), [], {
      env: this.taps ? { ...env, BRINMOOR_TEST_WEB_ROOT: client } : env,
      stdio: ['ignore', 'pipe', 'inherit'],
    });
    this.relay.stdout.setEncoding('utf8');
    this.relay.stdout.on('data', (data: string) => (this.relayLog += data));
    const port = await waitForLine(this.relay, this.relay.stdout, (line) => /^listening port=(\d+)$/.exec(line)?.[1], 'listening line');
    return Number(port);
  }

  async stop() {
    // Kept for a look after a failure when asked for.
    const logs = process.env.BRINMOOR_WEB_E2E_LOGS;
    if (logs) {
      mkdirSync(logs, { recursive: true });
      // A run over TLS beside one without keeps both.
      const prefix = this.tls ? 'tls-' : '';
      writeFileSync(join(logs, prefix + 'relay.log'), this.relayLog);
      writeFileSync(join(logs, prefix + 'agent.log'), this.agentLog ?? '');
    }
    for (const browser of this.browsers ?? []) await browser.close().catch(() => undefined);
    await stopProcess(this.agent);
    await stopProcess(this.relay);
    rmSync(this.root, { recursive: true, force: true });
  }
}

// A node:test `test` that, when its body fails and logs are asked for
// ($BRINMOOR_WEB_E2E_LOGS), leaves a picture and the text of each page `pages()` names
// ([page, suffix] pairs) behind, named after the test.
export function testLeavingPictures(
  nodeTest: typeof nodeTestType,
  prefix: string,
  pages: () => [TestPage | undefined, string][],
): (name: string, body: () => Promise<void>) => Promise<void> {
  return (name, body) =>
    nodeTest(name, async () => {
      try {
        await body();
      } catch (error) {
        const logs = process.env.BRINMOOR_WEB_E2E_LOGS;
        if (logs) {
          mkdirSync(logs, { recursive: true });
          const file = join(logs, prefix + name.replace(/\W+/g, '-').slice(0, 60));
          for (const [target, suffix] of pages()) {
            if (!target) continue;
            await target.screenshot({ path: file + suffix + '.png' }).catch(() => undefined);
            const text = await target.evaluate(() => document.body.innerText).catch((e) => String(e));
            writeFileSync(file + suffix + '.txt', text + '\n' + (target.problems ?? []).join('\n'));
          }
        }
        throw error;
      }
    });
}

// The visible element matching `selector` whose trimmed text is `text`, waited for.
// Waits until the page has run the tasks queued so far and drawn a frame: the barrier
// after an action whose effect, if it had one, is queued (a navigation, a hashchange).
// The sizes pages are looked at in: a phone, and a laptop's window.
export const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };
export const kDesktop = { width: 1440, height: 900, deviceScaleFactor: 1, isMobile: false, hasTouch: false };

// Pictures of the page at each size, web-NAME-SIZE.png in $BRINMOOR_WEB_SCREENSHOTS when
// that is set (scripts/screenshots); the page is left at phone size.
export async function shootSizes(page: Page, name: string, sizes: readonly ('phone' | 'desktop')[] = ['phone', 'desktop']) {
  const folder = process.env.BRINMOOR_WEB_SCREENSHOTS;
  if (!folder) return;
  mkdirSync(folder, { recursive: true });
  for (const size of sizes) {
    await page.setViewport(size === 'phone' ? kPhone : kDesktop);
    await page.waitForFunction(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => resolve(true)))));
    await page.screenshot({ path: join(folder, `web-${name}-${size}.png`) });
  }
  await page.setViewport(kPhone);
}

export async function pageSettled(page: Target) {
  await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => setTimeout(resolve, 0))));
}

export async function elementWithText(target: Target, selector: string, text: string, timeout = 20000) {
  const handle = await target.waitForFunction(
    (sel, wanted) => [...document.querySelectorAll(sel)].find((e) => e.textContent.trim() === wanted && e.getClientRects().length > 0),
    { timeout },
    selector,
    text,
  );
  return handle.asElement() as ElementHandle<Element>;
}

export async function clickText(target: Target, selector: string, text: string) {
  await (await elementWithText(target, selector, text)).click();
}

// Waits until the trimmed text of `selector` is `wanted`; the error says what it is.
export async function waitForText(target: Target, selector: string, wanted: string, timeout = 20000) {
  try {
    await target.waitForFunction((sel, text) => document.querySelector(sel)?.textContent.trim() === text, { timeout }, selector, wanted);
  } catch (error) {
    const seen = await target.evaluate((sel) => document.querySelector(sel)?.outerHTML ?? 'nothing', selector);
    throw new Error(`${selector} did not become ${JSON.stringify(wanted)}; it is ${seen}`, { cause: error });
  }
}

// Lines of an event stream of the fake `claude`: an answer streamed in pieces (a \x01 in
// the stream makes the fake tool pause), then the result.
export function claudeStream(pieces: string[]) {
  let text = '';
  let stream = '{"type":"system","subtype":"init","session_id":"s"}\n';
  for (const piece of pieces) {
    text += piece;
    // Each assistant event carries the whole text so far.
    stream += JSON.stringify({ type: 'assistant', message: { content: [{ type: 'text', text }] } }) + '\n\x01\x01';
  }
  return stream + JSON.stringify({ type: 'result', subtype: 'success', is_error: false, result: text, session_id: 's' }) + '\n';
}

export function codexStream(messages: string[], threadId = 'th-e2e') {
  let stream = JSON.stringify({ type: 'thread.started', thread_id: threadId }) + '\n';
  stream += '{"type":"turn.started"}\n';
  stream += '{"type":"item.started","item":{"type":"command_execution","command":"ls"}}\n';
  for (const text of messages) stream += JSON.stringify({ type: 'item.completed', item: { type: 'agent_message', text } }) + '\n\x01\x01';
  return stream + '{"type":"turn.completed"}\n';
}
