// The words a person reads, at phone size: how tasks ended and how long they took (after a
// reload too), the agent's bookkeeping folded into "Details", an assistant's activity in
// plain lines, what Claude said before a tool use, and a plan by Codex read as an answer.
import assert from 'node:assert/strict';
import { chmodSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import {
  clickText,
  elementWithText,
  kAgentId,
  kToken,
  pageSettled,
  testLeavingPictures,
  waitForText,
  World,
  type TestPage,
} from './harness.js';

const world = new World();
let page: TestPage;
let fresh: TestPage | undefined;
const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };

const test = testLeavingPictures(nodeTest, 'words-', () => [
  [page, ''],
  [fresh, '-fresh'],
]);

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  await page.goto(`${world.origin}/#token=${kToken}`);
  await clickText(page, '.project .project-name', 'App');
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);
const waitText = (selector: string, wanted: string, timeout?: number) => waitForText(page, selector, wanted, timeout);

async function texts(selector: string, target: TestPage = page) {
  return target.$$eval(selector, (elements) => elements.map((e) => e.textContent.trim()));
}

async function tab(name: string) {
  await click('button[role=tab] .tab-label', name);
}

// Runs a shell command from the Tasks tab and waits until the page shows its task.
async function runCommand(command: string) {
  await tab('Tasks');
  await page.waitForSelector('input[name=command]', { visible: true });
  await page.click('input[name=command]', { clickCount: 3 });
  await page.keyboard.press('Backspace');
  await page.type('input[name=command]', command);
  const before = await page.evaluate(() => window.brinmoor.tasks.list().length);
  await click('.run-form button', 'Run');
  await page.waitForFunction((n) => window.brinmoor.tasks.list().length > n, {}, before);
  await waitText('.task-detail .task-title', command);
}

// A duration as the page writes it, in milliseconds.
function milliseconds(text: string) {
  const match = /^(?:(\d+) min (\d+) s|(\d+(?:\.\d)?) s|(\d+) ms)$/.exec(text);
  assert.ok(match, `not a duration: ${JSON.stringify(text)}`);
  if (match[1] !== undefined) return (Number(match[1]) * 60 + Number(match[2])) * 1000;
  return match[3] !== undefined ? Number(match[3]) * 1000 : Number(match[4]);
}

async function chooseTask(selector: string, title: string) {
  await click(`${selector} .task-title`, title);
  await waitText('.task-detail .task-title', title);
}

test('a task ends as Finished, Failed · exit N, Cancelled, Timed out or Rejected, and its duration survives a reload', async () => {
  await runCommand('sleep 1.5');
  await waitText('.task-detail .task-status', 'Finished');
  const took = await page.$eval('.task-detail .task-duration', (e) => e.textContent);
  // Seconds, as the page saw it run (each message reaches it a little late).
  assert.ok(milliseconds(took) >= 1000, `sleep 1.5 took ${took}`);

  await runCommand('exit 3');
  await waitText('.task-detail .task-status', 'Failed · exit 3');

  await runCommand('sleep 30');
  await waitText('.task-detail .task-status', 'Running…');
  await click('.task-detail .task-head button', 'Cancel');
  await waitText('.task-detail .task-status', 'Cancelled');

  // The page offers no time limit: this task is given one as another client would.
  const limited = await page.evaluate(async (agentId) => {
    const state = window.brinmoor;
    const task = await state.tasks.run(agentId, {
      action: 'shell',
      command: 'sleep 20',
      projectPath: state.navigation.place.projectPath!,
      timeoutSec: 1,
    });
    state.navigation.go({ taskId: task.taskId });
    return task.taskId;
  }, kAgentId);
  await page.waitForSelector(`.task-detail[data-task="${limited}"]`);
  await waitText('.task-detail .task-status', 'Timed out');
  assert.deepEqual(await texts('.task-history .task-state'), ['Timed out', 'Cancelled', 'Failed · exit 3', 'Finished']);

  writeFileSync(join(world.project, 'greeting.txt'), 'hello\n');
  world.fakeFile('codex.script', 'print ciao > greeting.txt\n');
  world.fakeFile('codex.stream', codexEvents([message('I changed the greeting to ciao in greeting.txt.')]));
  await tab('Changes');
  await page.waitForSelector('textarea[name=change-prompt]', { visible: true });
  await page.type('textarea[name=change-prompt]', 'Say ciao');
  await click('.change-form button[type=submit]', 'Start');
  await click('.change-detail .actions button', 'Reject');
  await waitText('.change-detail .task-status', 'Rejected');
  assert.equal(await page.$('.change-detail .error'), null);

  // After a reload the tasks come back, replayed at once, with the times they took.
  await page.reload();
  await tab('Tasks');
  await page.waitForFunction(() => document.querySelectorAll('.task-history .task-state').length === 4);
  assert.deepEqual(await texts('.task-history .task-state'), ['Timed out', 'Cancelled', 'Failed · exit 3', 'Finished']);
  await chooseTask('.task-history', 'sleep 1.5');
  await waitText('.task-detail .task-status', 'Finished');
  // Once the agent's list is read, its own times win over what the page saw: the same
  // but for how late each message reached the page.
  const kept = await page.$eval('.task-detail .task-duration', (e) => e.textContent);
  assert.ok(Math.abs(milliseconds(kept) - milliseconds(took)) <= 300, `${kept} after the reload, ${took} before`);
  await waitText('.task-detail .log-empty', 'No output.');
  await tab('Changes');
  await waitText('.change-detail .task-status', 'Rejected');

  // A browser that never saw these tasks run has their times from the agent.
  const context = await world.browser.createBrowserContext();
  fresh = await world.page(kPhone, context);
  await fresh.goto(`${world.origin}/#token=${kToken}`);
  await clickText(fresh, '.project .project-name', 'App');
  await clickText(fresh, 'button[role=tab] .tab-label', 'Tasks');
  await fresh.waitForFunction(() => document.querySelectorAll('.task-history .task-state').length === 4);
  // The agent's list says which cancellation was the time limit's.
  assert.deepEqual(await texts('.task-history .task-state', fresh), ['Timed out', 'Cancelled', 'Failed · exit 3', 'Finished']);
  await clickText(fresh, '.task-history .task-state', 'Finished');
  await waitForText(fresh, '.task-detail .task-status', 'Finished');
  await pageSettled(fresh);
  const told = await fresh.$eval('.task-detail .task-duration', (e) => e.textContent);
  assert.ok(milliseconds(told) >= 1500 && milliseconds(told) < 5000, `sleep 1.5 took ${told} by the agent's clock`);
  await context.close();
  fresh = undefined;
});

test('the agent\u2019s bookkeeping waits behind Details, and the build action is called Build', async () => {
  await runCommand("printf 'one\\ntwo\\n'");
  await waitText('.task-detail .task-status', 'Finished');
  assert.deepEqual(await texts('.task-log .log-line'), ['one', 'two']);
  await waitText('.task-detail .details-row summary', 'Details');
  assert.equal(await page.$eval('.task-detail .details-row', (e) => (e as HTMLDetailsElement).open), false);
  assert.equal(await page.$('.task-detail .details-row li'), null);
  await click('.task-detail .details-row summary', 'Details');
  await page.waitForSelector('.task-detail .details-row li');
  const details = await texts('.task-detail .details-row li');
  assert.equal(details.length, 1);
  assert.match(details[0], /^workspace\.resolve action=shell requestedProjectPath=/);

  writeFileSync(join(world.repo, 'deploy.sh'), '#!/bin/sh\necho "built $1"\n');
  chmodSync(join(world.repo, 'deploy.sh'), 0o755);
  await click('.run-form button', 'Build');
  await waitText('.task-detail .task-title', 'Build');
  await waitText('.task-detail .task-status', 'Finished');
  assert.deepEqual(await texts('.task-log .log-line'), [`built ${world.project}`]);
  assert.equal((await texts('.task-history .task-item .task-title'))[0], 'Build');
  assert.ok(!(await page.evaluate(() => document.body.innerText)).includes('build_ios'), 'the action name is not shown');
});

// A Codex event stream: a command with its output, then the messages.
function codexEvents(events: object[]) {
  const lines = [
    { type: 'thread.started', thread_id: 'th-words' },
    { type: 'turn.started' },
    { type: 'item.started', item: { id: 'c1', type: 'command_execution', command: 'ls' } },
    {
      type: 'item.completed',
      item: { id: 'c1', type: 'command_execution', command: 'ls', aggregated_output: 'Package.swift\n', exit_code: 0 },
    },
    ...events,
    { type: 'turn.completed', usage: { input_tokens: 1, output_tokens: 1 } },
  ];
  return lines.map((line) => JSON.stringify(line) + '\n\x01').join('');
}

function message(text: string, id?: string) {
  return { type: 'item.completed', item: { id, type: 'agent_message', text } };
}

async function newChat(system: string) {
  await tab('Chat');
  await pageSettled(page);
  // On a phone an open chat covers the list: back to it first.
  if (await page.$eval('.back-to-list', (e) => e.getClientRects().length > 0).catch(() => false)) await page.click('.back-to-list');
  await click('.segmented button', system);
  await click('.new-chat-button', 'New chat');
}

async function sendChat(prompt: string) {
  await page.waitForSelector('textarea[name=prompt]', { visible: true });
  await page.type('textarea[name=prompt]', prompt);
  await click('.composer button', 'Send');
}

test('a chat\u2019s activity reads as steps, and what its commands printed waits behind Details', async () => {
  world.fakeFile('codex.script', '');
  world.fakeFile('codex.stream', codexEvents([message('There is **one** file.', 'm1')]));
  await newChat('Codex');
  await sendChat('What is here?');
  await page.waitForSelector('.message.assistant.done');
  assert.equal(await page.$eval('.message.assistant .markdown strong', (e) => e.textContent), 'one');
  await waitText('.message.assistant .activity-count', '1 step');
  await waitText('.message.assistant .activity-last', 'Ran ls');
  await waitText('.message.assistant .details-row summary', 'Details');
  const shown = await page.$eval('.message.assistant', (e) => (e as HTMLElement).innerText);
  assert.ok(!/workspace\.resolve|\[command/.test(shown), shown);
  await click('.message.assistant .details-row summary', 'Details');
  await page.waitForSelector('.message.assistant .details-row li');
  const details = await texts('.message.assistant .details-row li');
  assert.equal(details.length, 2);
  assert.match(details[0], /^workspace\.resolve action=chat /);
  assert.equal(details[1], 'Package.swift');
});

// A fake `claude` that says something, asks to write notes.txt through the approval tool,
// and answers after the tool's result (an error when it was denied).
const kClaudeUsingATool = `decision=$("$BRINMOOR_TEST_HELPER" mcp-call "$config" Write '{"file_path":"notes.txt","content":"remember the milk"}')
if [[ $decision == *'"behavior":"allow"'* ]]; then
  print -r -- written > notes.txt
  result='{"type":"tool_result","tool_use_id":"tu1","content":"File written"}'
  answer='Wrote **notes.txt**.'
else
  result='{"type":"tool_result","tool_use_id":"tu1","is_error":true,"content":"The user did not allow it"}'
  answer='I was not allowed to write notes.txt.'
fi
{ print -r -- '{"type":"system","subtype":"init","session_id":"s"}'
  print -r -- '{"type":"assistant","message":{"id":"m1","content":[{"type":"text","text":"I will write the note first."}]}}'
  print -r -- '{"type":"assistant","message":{"id":"m1","content":[{"type":"tool_use","id":"tu1","name":"Write","input":{"file_path":"notes.txt"}}]}}'
  print -r -- '{"type":"user","message":{"content":['$result']}}'
  print -r -- '{"type":"assistant","message":{"id":"m2","content":[{"type":"text","text":"'$answer'"}]}}'
  print -r -- '{"type":"result","subtype":"success","is_error":false,"result":"'$answer'"}'
} > $dir/$name.$n.stream
`;

test('what Claude said before a tool use stays in the answer, and an allowed or denied tool use leaves a line', async () => {
  world.fakeFile('claude.script', kClaudeUsingATool);
  await newChat('Claude');
  await sendChat('Take a note');
  await page.waitForSelector('.sheet .request');
  await click('.sheet button', 'Allow');
  await page.waitForSelector('.message.assistant.done');
  assert.deepEqual(await texts('.message.assistant .markdown p'), ['I will write the note first.', 'Wrote notes.txt.']);
  await waitText('.message.assistant .activity-last', 'Allowed Write: notes.txt');
  assert.equal(await page.$eval('.message.assistant .activity-count', (e) => e.textContent), '1 step');

  await sendChat('Take another note');
  await page.waitForSelector('.sheet .request');
  await click('.sheet button', 'Deny…');
  await click('.sheet button', 'Deny');
  await page.waitForFunction(() => document.querySelectorAll('.message.assistant.done').length === 2);
  const answer = '.message.assistant:last-of-type';
  assert.deepEqual(await texts(answer + ' .markdown p'), ['I will write the note first.', 'I was not allowed to write notes.txt.']);
  await waitText(answer + ' .activity-count', '2 steps');
  await click(answer + ' .activity summary .activity-count', '2 steps');
  await page.waitForSelector(answer + ' .activity li');
  assert.deepEqual(await texts(answer + ' .activity li'), ['Denied Write: notes.txt', 'Write failed: The user did not allow it']);
  world.fakeFile('claude.script', '');
});

test('a plan by Codex reads as an answer, and a proposal\u2019s commentary as Markdown said once', async () => {
  world.fakeFile('codex.script', '');
  const plan = '## Plan\n\n1. Read **Package.swift**\n2. Add a test';
  world.fakeFile(
    'codex.stream',
    codexEvents([{ type: 'item.started', item: { id: 'm1', type: 'agent_message', text: '## Plan' } }, message(plan, 'm1')]),
  );
  await tab('Changes');
  await click('.change-form .segmented button', 'Plan only');
  await page.type('textarea[name=change-prompt]', 'Plan a test');
  await click('.change-form button[type=submit]', 'Start');
  await waitText('.change-detail .task-status', 'Finished');
  await waitText('.change-detail .commentary h2', 'Plan');
  assert.deepEqual(await texts('.change-detail .commentary li'), ['Read Package.swift', 'Add a test']);
  assert.equal(await page.$eval('.change-detail .commentary strong', (e) => e.textContent), 'Package.swift');
  assert.equal(await page.$eval('.change-detail .activity-last', (e) => e.textContent), 'Ran ls');
  const shown = await page.$eval('.change-detail', (e) => (e as HTMLElement).innerText);
  assert.ok(!shown.includes('{"type"'), shown);
  assert.equal(await page.$('.change-detail .change-log'), null);

  // A proposal: its commentary is Markdown, its first line not said twice, and the result
  // of applying it does not say the commentary again.
  writeFileSync(join(world.project, 'greeting.txt'), 'hello\n');
  world.fakeFile('codex.script', 'print bye > greeting.txt\n');
  world.fakeFile('codex.stream', codexEvents([message('**Why**: the greeting was wrong.\n- changed `greeting.txt`', 'm1')]));
  await click('.change-form .segmented button', 'Propose changes');
  await page.type('textarea[name=change-prompt]', 'Say bye');
  await click('.change-form button[type=submit]', 'Start');
  await elementWithText(page, '.change-detail .actions button', 'Approve');
  await waitText('.change-detail .commentary strong', 'Why');
  assert.equal(await page.$eval('.change-detail .commentary code', (e) => e.textContent), 'greeting.txt');
  assert.equal(await page.$('.change-detail .proposal-summary'), null);
  await click('.change-detail .actions button', 'Approve');
  await waitText('.change-detail .task-status', 'Finished');
  await waitText('.change-detail .result', 'Applied the approved changes to 1 file.');
  assert.equal((await page.$$('.change-detail .commentary')).length, 1);
});

test('nothing was refused by the page policy and no error reached the console', async () => {
  assert.deepEqual(page.problems, []);
});
