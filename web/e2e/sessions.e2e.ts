// Sessions at the desk, at phone size: a claude session started at the desk is listed in
// the project's Sessions, opened with its turns, continued from the phone (claude
// --resume) and handed back with the command that continues it at the desk; a reload
// keeps the place, a long session pages back, a codex thread is listed beside them, and
// one a process at the desk holds takes no message (nor does one taken up at the desk
// after it was opened: the agent refuses); one started from the phone says that its
// command continues it at the desk. One held at the desk is watched while it is shown:
// the turns the desk adds come in as they are written (again after a reload), none once it
// is closed; it forks into a chat of its own (claude --fork-session), and goes on here
// once the desk lets go of it. Screenshots go to $BRINMOOR_WEB_SCREENSHOTS when it is set.
import assert from 'node:assert/strict';
import { appendFileSync, mkdirSync, readFileSync, realpathSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import {
  claudeStream,
  clickText,
  kAgentId,
  kPhone,
  kToken,
  pageSettled,
  shootSizes,
  testLeavingPictures,
  type TestPage,
  waitForText,
  World,
} from './harness.js';

const world = new World();
let page: TestPage;
// Switching isMobile or hasTouch reloads a page in puppeteer, so both sizes keep them off;
// the phone layout follows the width.

const kDesk = '3f0c9a52-7d41-4e2b-9a6f-1c8e5b7d2a40';
const kLive = '8b2e4d19-5c73-4a0f-b6e1-9d4c2f7a3e85';
const kLong = 'c51a7e08-2f94-4b3d-8e6a-7b0d1c9f4e26';
const kThread = '01a20fde-c1f6-7e61-9c92-5167e8ff5e02';
const kWatched = '5d9e1b37-0c6a-4f82-a3d4-e7b2c8f01a96';
const kLongPrompts = 300; // 600 turns: more than one read gives

const test = testLeavingPictures(nodeTest, 'sessions-', () => [[page, '']]);

let project: string;

before(async () => {
  await world.start();
  project = realpathSync(world.project);
  page = await world.page(kPhone);
  await page.browserContext().overridePermissions(world.origin, ['clipboard-read', 'clipboard-write', 'clipboard-sanitized-write']);
  await page.goto(`${world.origin}/#token=${kToken}`);
  await clickText(page, '.project .project-name', 'App');
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);
const waitText = (selector: string, wanted: string, timeout?: number) => waitForText(page, selector, wanted, timeout);

async function textOf(selector: string) {
  return page.$eval(selector, (e) => e.textContent.trim());
}

async function textsOf(selector: string) {
  return page.$$eval(selector, (elements) => elements.map((e) => e.textContent.trim()));
}

// Where claude keeps the transcripts of a folder: the folder's absolute path with every
// character but ASCII letters and digits made "-".
function transcriptFolder() {
  return join(world.root, 'claude', 'projects', project.replace(/[^A-Za-z0-9]/g, '-'));
}

type Line = Record<string, unknown>;

// A "user" line: a prompt, or a tool's result; `turn` counts the user's prompts from 1.
function userLine(uuid: string, parent: string | null, content: unknown, second: number, turn: number): Line {
  return {
    parentUuid: parent,
    isSidechain: false,
    type: 'user',
    message: { role: 'user', content },
    uuid,
    timestamp: `2026-11-24T10:${String(Math.floor(second / 60) % 60).padStart(2, '0')}:${String(second % 60).padStart(2, '0')}.000Z`,
    turnPosition: { promptIndex: 0, turnIndex: turn },
    cwd: project,
  };
}

function assistantLine(uuid: string, parent: string, id: string, content: unknown[], second: number): Line {
  return {
    parentUuid: parent,
    isSidechain: false,
    type: 'assistant',
    message: { id, role: 'assistant', content },
    uuid,
    timestamp: `2026-11-24T10:${String(Math.floor(second / 60) % 60).padStart(2, '0')}:${String(second % 60).padStart(2, '0')}.500Z`,
  };
}

// A session as claude at the desk writes it: <session id>.jsonl, one JSON line a record.
function writeTranscript(id: string, lines: Line[]) {
  mkdirSync(transcriptFolder(), { recursive: true });
  writeFileSync(join(transcriptFolder(), `${id}.jsonl`), lines.map((line) => JSON.stringify(line) + '\n').join(''));
}

// A codex thread as codex at the desk writes it: a rollout under sessions/YYYY/MM/DD whose
// first line names the thread and its folder; prompts are events, answers response items.
function writeRollout(id: string, prompt: string, answer: string) {
  const folder = join(world.root, 'codex', 'sessions', '2026', '11', '24');
  mkdirSync(folder, { recursive: true });
  const line = (type: string, payload: unknown) => JSON.stringify({ timestamp: '2026-11-24T11:00:00.000Z', type, payload }) + '\n';
  writeFileSync(
    join(folder, `rollout-2026-11-24T11-00-00-${id}.jsonl`),
    line('session_meta', { id, timestamp: '2026-11-24T11:00:00.000Z', cwd: project, base_instructions: { text: 'i'.repeat(2000) } }) +
      line('event_msg', { type: 'item_completed', item: { type: 'UserMessage', content: [{ type: 'text', text: prompt }] } }) +
      line('response_item', { type: 'message', role: 'assistant', content: [{ type: 'output_text', text: answer }] }),
  );
}

// Lines claude at the desk adds to a session it holds.
function appendTranscript(id: string, lines: Line[]) {
  appendFileSync(join(transcriptFolder(), `${id}.jsonl`), lines.map((line) => JSON.stringify(line) + '\n').join(''));
}

// The start time of this process as /proc has it, which claude writes beside its pid.
function ownStart() {
  const stat = readFileSync('/proc/self/stat', 'latin1');
  return stat
    .slice(stat.lastIndexOf(')') + 2)
    .split(' ')
    .at(19)!;
}

async function tab(name: string) {
  await click('button[role=tab] .tab-label', name);
}

// The row of the list whose title is `title`, and what it says.
async function row(title: string) {
  await page.waitForFunction(
    (wanted) => [...document.querySelectorAll('.session-item .session-title')].some((e) => e.textContent === wanted),
    { timeout: 20000 },
    title,
  );
  return page.$$eval(
    '.session-item',
    (items, wanted) => {
      const item = items.find((e) => e.querySelector('.session-title')!.textContent === wanted)!;
      const text = (selector: string) => item.querySelector(selector)?.textContent ?? null;
      return {
        tool: text('.system-tag'),
        when: text('.session-when'),
        count: text('.session-count'),
        origin: text('.session-origin'),
        live: text('.live-label'),
        state: text('.live-state'),
      };
    },
    title,
  );
}

function shoot(name: string, sizes: ('phone' | 'desktop')[]) {
  return shootSizes(page, name, sizes);
}

test('the Sessions tab says when the folder has none, and lists a session started at the desk', async () => {
  await tab('Sessions');
  await waitText('.session-list-head h2', 'Sessions');
  assert.equal(await textOf('.refresh-sessions'), 'Refresh');
  await waitText('.session-list .empty-note', 'No claude or codex sessions in this folder yet.');
  writeTranscript(kDesk, [
    userLine('u1', null, 'Fix the login page', 1, 1),
    assistantLine('a1', 'u1', 'm1', [{ type: 'tool_use', id: 'toolu_1', name: 'Bash', input: { command: 'npm test -- login' } }], 2),
    userLine('r1', 'a1', [{ type: 'tool_result', tool_use_id: 'toolu_1', content: '12 passed' }], 3, 1),
    assistantLine('a2', 'r1', 'm2', [{ type: 'text', text: 'Done. The **login** page checks the password again.' }], 4),
  ]);
  await click('.refresh-sessions', 'Refresh');
  assert.deepEqual(await row('Fix the login page'), {
    tool: 'Claude',
    when: 'just now',
    count: '1 message',
    origin: 'from the desk',
    live: null,
    state: null,
  });
  assert.deepEqual(page.problems, []);
});

test('an opened session shows its turns, goes on here with claude --resume, and hands back its command', async () => {
  await click('.session-item .session-title', 'Fix the login page');
  await waitText('.session-pane .conversation-title', 'Fix the login page');
  await waitText('.session-turns .message.user .bubble', 'Fix the login page');
  await waitText('.session-turns .message.assistant .markdown', 'Done. The login page checks the password again.');
  assert.equal(await textOf('.session-turns .message.assistant .markdown strong'), 'login');
  assert.equal(await textOf('.session-turns .turn-tool'), 'Bash: npm test -- login');
  assert.equal(await textOf('.session-turns .turn-result summary'), 'Tool result');
  assert.equal(await page.$eval('.session-turns .turn-result', (e) => (e as HTMLDetailsElement).open), false);
  assert.equal(await textOf('.session-turns .turn-result pre'), '12 passed');
  assert.equal(await page.$('.earlier-turns'), null);
  assert.equal(await page.$('.live-note'), null);
  assert.equal(await page.$('.phone-note'), null);
  const command = `cd '${project}' && claude --resume ${kDesk}`;
  assert.equal(await textOf('.resume-command'), command);
  assert.equal(await textOf('.copy-command'), 'Copy');
  assert.equal(
    await page.$eval('.session-pane textarea[name=prompt]', (e) => (e as HTMLTextAreaElement).placeholder),
    'Continue with Claude',
  );

  world.fakeFile('claude.stream', claudeStream(['The signup page ', 'checks it **too** now.']));
  await page.type('.session-pane textarea[name=prompt]', 'Do the same for the signup page');
  await click('.session-pane .composer button', 'Send');
  await waitText('.session-turns .message.user:nth-last-child(2) .bubble', 'Do the same for the signup page');
  await page.waitForFunction(() => {
    const answers = document.querySelectorAll('.session-turns .message.assistant');
    const last = answers[answers.length - 1];
    return last?.classList.contains('done') && last.querySelector('.markdown')?.textContent.trim() === 'The signup page checks it too now.';
  });
  // The agent went on with the desk's session, in the project's folder.
  const args = world.fakeArgs('claude', 1);
  assert.equal(args[args.indexOf('--resume') + 1], kDesk);
  assert.equal(readFileSync(join(world.fake, 'claude.1.cwd'), 'utf8').trim(), project);
  assert.ok(world.agentLog.includes(`claude --resume '${kDesk}'`), 'the agent logs the command it runs');
  await shoot('session', ['phone']);

  await click('.copy-command', 'Copy');
  await waitText('.copy-command', 'Copied');
  assert.equal(await page.evaluate(() => navigator.clipboard.readText()), command);

  // The chat that went on with it is one of the project's chats, under the session's title.
  await tab('Chat');
  await waitText('.conversation-list .conversation-item .conversation-title', 'Fix the login page');
  await tab('Sessions');
  await waitText('.session-pane .conversation-title', 'Fix the login page');
  assert.deepEqual(page.problems, []);
});

test('a reload keeps the place: the Sessions tab and the open session with its turns', async () => {
  await page.reload();
  await waitText('button[role=tab].current .tab-label', 'Sessions');
  await waitText('.session-pane .conversation-title', 'Fix the login page');
  await waitText('.session-turns .message.user .bubble', 'Fix the login page');
  await waitText('.session-turns .message.assistant .markdown', 'Done. The login page checks the password again.');
  assert.equal(await textOf('.resume-command'), `cd '${project}' && claude --resume ${kDesk}`);
  await click('.back-to-list', '');
  await row('Fix the login page');
  assert.equal(await page.$('.session-pane'), null);
  assert.deepEqual(page.problems, []);
});

test('a long session shows its newest turns and pages back with Earlier', async () => {
  const lines: Line[] = [];
  let parent: string | null = null;
  for (let i = 0; i < kLongPrompts; i++) {
    lines.push(userLine(`lu${i}`, parent, `Step ${i + 1} of the migration`, i * 2, i + 1));
    lines.push(assistantLine(`la${i}`, `lu${i}`, `lm${i}`, [{ type: 'text', text: `Step ${i + 1} done.` }], i * 2 + 1));
    parent = `la${i}`;
  }
  writeTranscript(kLong, lines);
  await click('.refresh-sessions', 'Refresh');
  assert.equal((await row('Step 1 of the migration')).count, `${kLongPrompts} messages`);
  await click('.session-item .session-title', 'Step 1 of the migration');
  await waitText('.session-turns .message.assistant:last-child .markdown', `Step ${kLongPrompts} done.`);
  assert.equal((await textsOf('.session-turns .message')).length, 500);
  assert.equal(await textOf('.session-turns .message.user .bubble'), 'Step 51 of the migration');
  await click('.earlier-turns', 'Earlier');
  await waitText('.session-turns .message.user .bubble', 'Step 1 of the migration');
  assert.equal((await textsOf('.session-turns .message')).length, 2 * kLongPrompts);
  assert.equal(await page.$('.earlier-turns'), null);
  await click('.back-to-list', '');
  assert.deepEqual(page.problems, []);
});

test('a session open at the desk is marked Live and takes no message here', async () => {
  writeTranscript(kLive, [
    userLine('u1', null, 'Refactor the API client', 1, 1),
    assistantLine('a1', 'u1', 'm1', [{ type: 'text', text: 'Working on it.' }], 2),
  ]);
  // This test's own process stands in for the claude at the desk that holds it.
  const sessions = join(world.root, 'claude', 'sessions');
  mkdirSync(sessions, { recursive: true });
  writeFileSync(
    join(sessions, `${process.pid}.json`),
    JSON.stringify({ pid: process.pid, sessionId: kLive, procStart: ownStart(), status: 'busy' }) + '\n',
  );
  writeRollout(kThread, 'Add a README', 'Added README.md.');
  await click('.refresh-sessions', 'Refresh');
  assert.deepEqual(await row('Add a README'), {
    tool: 'Codex',
    when: 'just now',
    count: '1 message',
    origin: 'from the desk',
    live: null,
    state: null,
  });
  assert.deepEqual(await row('Refactor the API client'), {
    tool: 'Claude',
    when: 'just now',
    count: '1 message',
    origin: 'from the desk',
    live: 'Live',
    state: 'busy at the desk',
  });
  // The others are not held.
  assert.equal((await row('Fix the login page')).live, null);
  await shoot('sessions', ['phone']);
  await click('.session-item .session-title', 'Refactor the API client');
  await waitText('.session-turns .message.assistant .markdown', 'Working on it.');
  await waitText('.live-note', 'Open at the desk (busy): continuing here is refused while it is open there.');
  assert.equal(await page.$eval('.session-pane textarea[name=prompt]', (e) => (e as HTMLTextAreaElement).disabled), true);
  assert.equal(await page.$eval('.session-pane .composer button[type=submit]', (e) => (e as HTMLButtonElement).disabled), true);
  assert.equal(await textOf('.resume-command'), `cd '${project}' && claude --resume ${kLive}`);
  await click('.back-to-list', '');
  // A codex thread, handed back with codex's own command.
  await click('.session-item .session-title', 'Add a README');
  await waitText('.session-turns .message.assistant .markdown', 'Added README.md.');
  assert.equal(await textOf('.resume-command'), `cd '${project}' && codex resume ${kThread}`);
  assert.equal(
    await page.$eval('.session-pane textarea[name=prompt]', (e) => (e as HTMLTextAreaElement).placeholder),
    'Continue with Codex',
  );
  await click('.back-to-list', '');
  await click('.session-item .session-title', 'Fix the login page');
  await waitText('.session-turns .message.assistant .markdown', 'Done. The login page checks the password again.');
  await pageSettled(page);
  await shoot('sessions', ['desktop']);
  assert.deepEqual(page.problems, []);
});

test('a session taken up at the desk after it was opened refuses the message, and then says it is open there', async () => {
  await waitText('.session-pane .conversation-title', 'Fix the login page');
  assert.equal(await page.$('.live-note'), null);
  // The claude of this process now holds the desk's session, and no other.
  writeFileSync(
    join(world.root, 'claude', 'sessions', `${process.pid}.json`),
    JSON.stringify({ pid: process.pid, sessionId: kDesk, procStart: ownStart(), status: 'idle' }) + '\n',
  );
  const calls = () => world.agentLog.split('\n').filter((line) => line.includes(`claude --resume '${kDesk}'`)).length;
  const before = calls();
  await page.type('.session-pane textarea[name=prompt]', 'And the password reset page');
  await click('.session-pane .composer button', 'Send');
  await waitText(
    '.session-turns .message.assistant:last-child .error',
    'this session is open at the desk (idle); continue it there, or fork it',
  );
  await waitText('.live-note', 'Open at the desk (idle): continuing here is refused while it is open there.');
  assert.equal(await page.$eval('.session-pane textarea[name=prompt]', (e) => (e as HTMLTextAreaElement).disabled), true);
  // Right there: a copy of it, or a look at what the desk does with it (now that the list
  // says it is held, it is watched already).
  assert.equal(await textOf('.refused-actions .fork-refused'), 'Fork');
  await waitText('.refused-actions .watch-refused', 'Watching');
  await waitText('.session-pane .watch-mark', 'Watching');
  await click('.back-to-list', '');
  assert.deepEqual(await row('Fix the login page'), {
    tool: 'Claude',
    when: 'just now',
    count: '1 message',
    origin: 'from the desk',
    live: 'Live',
    state: 'idle at the desk',
  });
  assert.equal((await row('Refactor the API client')).live, null);
  // claude was never run for it.
  assert.equal(calls(), before);
  assert.deepEqual(page.problems, []);
});

test('a session started from the phone says so, and that its command continues it at the desk', async () => {
  // A chat of the page's own: the agent starts a claude session for it.
  world.fakeFile('claude.stream', claudeStream(['Added.']));
  await tab('Chat');
  await click('.segmented button', 'Claude');
  await click('.new-chat-button', 'New chat');
  await page.waitForSelector('.conversation textarea[name=prompt]', { visible: true });
  await page.type('.conversation textarea[name=prompt]', 'Add a logout button');
  await click('.conversation .composer button', 'Send');
  await page.waitForFunction(() => document.querySelector('.conversation .message.assistant.done'));
  let call = 1;
  while (!world.fakeArgs('claude', call).includes('--session-id')) call++;
  const args = world.fakeArgs('claude', call);
  const id = args[args.indexOf('--session-id') + 1];
  // What claude keeps of it: the prompt as the agent gave it, the project's rules before the user's words.
  const sent = args.find((arg) => arg.endsWith('Add a logout button'))!;
  assert.notEqual(sent, 'Add a logout button');
  writeTranscript(id, [userLine('u1', null, sent, 1, 1), assistantLine('a1', 'u1', 'm1', [{ type: 'text', text: 'Added.' }], 2)]);
  await tab('Sessions');
  await click('.refresh-sessions', 'Refresh');
  assert.deepEqual(await row('Add a logout button'), {
    tool: 'Claude',
    when: 'just now',
    count: '1 message',
    origin: 'from the phone',
    live: null,
    state: null,
  });
  await click('.session-item .session-title', 'Add a logout button');
  await waitText('.session-turns .message.user .bubble', 'Add a logout button');
  await waitText('.phone-note', "claude's own /resume list may not show sessions started from the phone; this command continues it.");
  assert.equal(await textOf('.resume-command'), `cd '${project}' && claude --resume ${id}`);
  assert.deepEqual(page.problems, []);
});

// What the page is told of watched sessions from now on: the "sessions.grew" it receives.
async function recordGrew() {
  await page.evaluate(() => {
    window.brinmoorGrew = [];
    window.brinmoor.connection.client!.onMessage((message) => {
      if (message.type === 'sessions.grew') window.brinmoorGrew.push(JSON.stringify(message));
    });
  });
}

async function grewTexts(id: string) {
  const said = await page.evaluate(() => window.brinmoorGrew);
  return said
    .map((text) => JSON.parse(text) as { id: string; items?: { text: string }[] })
    .filter((message) => message.id === id)
    .flatMap((message) => message.items?.map((item) => item.text) ?? ['(error)']);
}

const watchesLogged = (id: string) =>
  world.agentLog.split('\n').filter((line) => line.includes(`sessions.watch tool=claude id=${id}`)).length;

async function turnTexts() {
  return page.$$eval('.session-turns .message', (items) =>
    items.map((e) => (e.querySelector('.bubble, .markdown') ?? e).textContent.trim()),
  );
}

// This test's own process holds the session at the desk.
function holdAtDesk(id: string, status: string) {
  writeFileSync(
    join(world.root, 'claude', 'sessions', `${process.pid}.json`),
    JSON.stringify({ pid: process.pid, sessionId: id, procStart: ownStart(), status }) + '\n',
  );
}

test('a session open at the desk shows the turns the desk adds while it is shown, and none once closed', async () => {
  writeTranscript(kWatched, [
    userLine('w1', null, 'Tidy the settings screen', 1, 1),
    assistantLine('w2', 'w1', 'wm1', [{ type: 'text', text: 'Grouped the toggles.' }], 2),
  ]);
  holdAtDesk(kWatched, 'busy');
  await recordGrew();
  await click('.back-to-list', '');
  await click('.refresh-sessions', 'Refresh');
  assert.equal((await row('Tidy the settings screen')).live, 'Live');
  await click('.session-item .session-title', 'Tidy the settings screen');
  await waitText('.session-turns .message.assistant:last-child .markdown', 'Grouped the toggles.');
  await waitText('.session-pane .watch-mark', 'Watching');
  await world.waitFor(() => watchesLogged(kWatched) === 1, 'the agent to watch the session');

  // The desk goes on with it.
  appendTranscript(kWatched, [
    userLine('w3', 'w2', 'Also rename the dark toggle', 3, 2),
    assistantLine('w4', 'w3', 'wm2', [{ type: 'text', text: 'Renamed it to **Dark mode**.' }], 4),
  ]);
  await waitText('.session-turns .message.assistant:last-child .markdown', 'Renamed it to Dark mode.');
  assert.deepEqual(await turnTexts(), [
    'Tidy the settings screen',
    'Grouped the toggles.',
    'Also rename the dark toggle',
    'Renamed it to Dark mode.',
  ]);
  // Read-only: it is still the desk's.
  assert.equal(await textOf('.live-note'), 'Open at the desk (busy): continuing here is refused while it is open there.');
  assert.equal(await page.$eval('.session-pane textarea[name=prompt]', (e) => (e as HTMLTextAreaElement).disabled), true);
  assert.equal(await textOf('.live-bar .fork-session'), 'Fork');
  await pageSettled(page);
  await shoot('session-live', ['phone']);

  // Closed, it is no longer watched: what the desk writes now comes by no "sessions.grew".
  await click('.back-to-list', '');
  await page.waitForFunction(
    (agent, id) => window.brinmoor.sessions.history(agent, 'claude', id)?.watching === false,
    {},
    kAgentId,
    kWatched,
  );
  // The agent takes a client's messages in order: once it starts a watch asked for after
  // the page's unwatch, it has ended the page's watch.
  await page.evaluate((agent, id) => window.brinmoor.connection.client!.watchSession(agent, 'claude', id), kAgentId, kLong);
  await world.waitFor(() => watchesLogged(kLong) === 1, 'the agent to watch another session');
  await page.evaluate((agent, id) => window.brinmoor.connection.client!.unwatchSession(agent, 'claude', id), kAgentId, kLong);
  appendTranscript(kWatched, [userLine('w5', 'w4', 'Written while nobody looked', 5, 3)]);
  await click('.session-item .session-title', 'Tidy the settings screen');
  // The agent starts a new watch: the old one ended.
  await world.waitFor(() => watchesLogged(kWatched) === 2, 'the agent to watch the session again');
  await waitText('.session-turns .message.user:last-child .bubble', 'Written while nobody looked');
  appendTranscript(kWatched, [assistantLine('w6', 'w5', 'wm3', [{ type: 'text', text: 'Seen again.' }], 6)]);
  await waitText('.session-turns .message.assistant:last-child .markdown', 'Seen again.');
  assert.deepEqual(await grewTexts(kWatched), ['Also rename the dark toggle', 'Renamed it to **Dark mode**.', 'Seen again.']);
  assert.equal((await turnTexts()).length, 6);
  assert.deepEqual(page.problems, []);
});

test('a reload while a session is watched watches it again', async () => {
  await page.reload();
  await waitText('.session-pane .conversation-title', 'Tidy the settings screen');
  await waitText('.session-pane .watch-mark', 'Watching');
  // The page that went ended its watch, and the new one starts another.
  await world.waitFor(() => watchesLogged(kWatched) === 3, 'the agent to watch the session after the reload');
  await recordGrew();
  appendTranscript(kWatched, [
    userLine('w7', 'w6', 'And after the reload?', 7, 4),
    assistantLine('w8', 'w7', 'wm4', [{ type: 'text', text: 'Still here.' }], 8),
  ]);
  await waitText('.session-turns .message.assistant:last-child .markdown', 'Still here.');
  assert.deepEqual(await grewTexts(kWatched), ['And after the reload?', 'Still here.']);
  // Each turn once: what the earlier page was told is not told again.
  assert.deepEqual(await turnTexts(), [
    'Tidy the settings screen',
    'Grouped the toggles.',
    'Also rename the dark toggle',
    'Renamed it to Dark mode.',
    'Written while nobody looked',
    'Seen again.',
    'And after the reload?',
    'Still here.',
  ]);
  assert.deepEqual(page.problems, []);
});

test('a session open at the desk forks into a chat of its own, claude --fork-session', async () => {
  const forks = () => world.agentLog.split('\n').filter((line) => line.includes(`claude --resume '${kWatched}' --fork-session`));
  assert.equal(forks().length, 0);
  await click('.live-bar .fork-session', 'Fork');
  await waitText('.fork-note span', 'A copy of this session goes on in Chat; the session itself stays as it is.');
  const prompt = '.session-pane textarea[name=prompt]';
  assert.equal(await page.$eval(prompt, (e) => (e as HTMLTextAreaElement).placeholder), 'Message for a copy of this session');
  assert.equal(await page.$eval(prompt, (e) => (e as HTMLTextAreaElement).disabled), false);
  world.fakeFile('claude.stream', claudeStream(['The copy ', 'knows the **settings** screen.']));
  await page.type(prompt, 'Try a tabbed layout');
  await click('.session-pane .composer button[type=submit]', 'Send');
  // The copy's answer streams in Chat.
  await waitText('button[role=tab].current .tab-label', 'Chat');
  await waitText('.conversation .message.user .bubble', 'Try a tabbed layout');
  await page.waitForFunction(
    () =>
      document.querySelector('.conversation .message.assistant.done .markdown')?.textContent.trim() ===
      'The copy knows the settings screen.',
    { timeout: 20000 },
  );
  const conversationId = await page.evaluate(() => window.brinmoor.navigation.place.conversationId);
  assert.match(conversationId ?? '', /^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$/);
  await world.waitFor(() => forks().length === 1, 'the agent to log the fork');
  assert.ok(forks()[0].includes(`claude --resume '${kWatched}' --fork-session --session-id '${conversationId}'`), forks()[0]);
  await waitText('.conversation-list .conversation-item.current .conversation-title', 'Try a tabbed layout');
  assert.deepEqual(page.problems, []);
});

test('once the desk lets go of a watched session it is read again and goes on here', async () => {
  await tab('Sessions');
  await waitText('.session-pane .watch-mark', 'Watching');
  await world.waitFor(() => watchesLogged(kWatched) === 4, 'the agent to watch the session on the tab');
  rmSync(join(world.root, 'claude', 'sessions', `${process.pid}.json`));
  appendTranscript(kWatched, [userLine('w9', 'w8', 'Last words at the desk', 9, 5)]);
  // The list, read again while the session is watched, says the desk let go.
  await page.waitForFunction(() => document.querySelector('.session-pane .live-note') === null, { timeout: 30000 });
  await page.waitForFunction(() => document.querySelector('.session-pane .watch-mark') === null);
  await waitText('.session-turns .message.user:last-child .bubble', 'Last words at the desk');
  const prompt = '.session-pane textarea[name=prompt]';
  await page.waitForFunction((sel) => !(document.querySelector(sel) as HTMLTextAreaElement).disabled, {}, prompt);
  assert.equal(await page.$eval(prompt, (e) => (e as HTMLTextAreaElement).placeholder), 'Continue with Claude');
  assert.equal(await textOf('.conversation-head .fork-session'), 'Fork');
  assert.equal((await turnTexts()).length, 9);
  assert.deepEqual(page.problems, []);
});
