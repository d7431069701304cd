// Untrusted text in every place the page shows it: an assistant's answer, the file names
// and content of a proposal's diff, a task's output, a terminal's output, and the tool
// inputs of permission requests. None of it may run a script, draw outside its own box,
// pose as the page, open the page again with another token, or change what the page
// keeps; every field of a tool input is shown. Screenshots of the approval sheet with a
// folded value go to $BRINMOOR_WEB_SCREENSHOTS when it is set.
import assert from 'node:assert/strict';
import { after, before, test as nodeTest } from 'node:test';
import type { ElementHandle } from 'puppeteer-core';
import {
  claudeStream,
  clickText,
  codexStream,
  elementWithText,
  focusTerminal,
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
const kEvilToken = 'evil-token-0d1e';
const kFoldLines = 12;
const kFoldCharacters = 600;

const test = testLeavingPictures(nodeTest, 'hostile-', () => [[page, '']]);

// Dialogs the page opened (a terminal's hyperlink asks before it opens, by default).
const dialogs: string[] = [];

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  page.on('dialog', (dialog) => {
    dialogs.push(dialog.message());
    // Whoever clicked a link means to follow it.
    void dialog.accept();
  });
  // In front, so that it has the focus the clipboard asks for.
  await page.bringToFront();
  await page.browserContext().overridePermissions(world.origin, ['clipboard-read', 'clipboard-write', 'clipboard-sanitized-write']);
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  await clickText(page, '.project .project-name', 'App');
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);

async function type(selector: string, text: string) {
  await page.waitForSelector(selector, { visible: true });
  await page.type(selector, text);
}

function shoot(name: string) {
  return shootSizes(page, name);
}

// What the page keeps and where it is: none of it may change because of what it shows.
// The seqs it resumes from move with every message, and a task the user starts is kept
// with its payload and the times it saw; all are the page's own doing, as is `ignored`
// (where the user went).
function pageState(ignored: string[] = []) {
  return page.evaluate(
    (skip) => {
      const kept: Record<string, string | null> = {};
      for (let i = 0; i < localStorage.length; i++) {
        const key = localStorage.key(i)!;
        if (!skip.includes(key)) kept[key] = localStorage.getItem(key);
      }
      return {
        href: location.href,
        title: document.title,
        token: localStorage.getItem('brinmoor.token'),
        kept,
        pwned: window.__pwned ?? null,
      };
    },
    ['brinmoor.seqs', 'brinmoor.taskPayloads', 'brinmoor.taskTimes', 'brinmoor.looked', ...ignored],
  );
}

// The pages the browser has open: a link that opened one is seen here.
async function openPages() {
  return (await world.browser.pages()).length;
}

// The page's own parts that untrusted text could pose as, and elements that run or
// cover: their number may not change because of what the page shows.
function appPartCounts() {
  return page.evaluate(() =>
    Object.fromEntries(
      ['.sheet-backdrop', '.sheet', '.topbar', '.tabs', '.token-page', 'iframe', 'script', 'dialog', 'math', '[popover]', '[onerror]'].map(
        (selector) => [selector, document.querySelectorAll(selector).length],
      ),
    ),
  );
}

// What under `selector` takes input, runs, links, or has an id or a style of its own.
function foreignElements(selector: string) {
  return page.$$eval(selector + ' *', (elements) =>
    elements
      .filter((e) =>
        e.matches('form, input, button, select, textarea, iframe, script, style, object, embed, a, [id], [style], [onerror], [popover]'),
      )
      .map((e) => e.outerHTML.slice(0, 200)),
  );
}

// Every element under `root` that reaches out of `box`'s border box, once what its own
// scroll areas inside `box` hide is taken away; and every element that is positioned.
function escapes(rootSelector: string, boxSelector: string) {
  return page.evaluate(
    (rootSel, boxSel) => {
      const root = document.querySelector(rootSel)!;
      const box = document.querySelector(boxSel)!.getBoundingClientRect();
      const found: string[] = [];
      for (const element of root.querySelectorAll('*')) {
        const position = getComputedStyle(element).position;
        if (position !== 'static') found.push(`${element.tagName} is ${position}`);
        const rect = element.getBoundingClientRect();
        if (rect.width === 0 && rect.height === 0) continue;
        let { left, top, right, bottom } = rect;
        for (let up = element.parentElement; up && up !== root.parentElement; up = up.parentElement) {
          if (getComputedStyle(up).overflowX === 'visible' && getComputedStyle(up).overflowY === 'visible') continue;
          const clip = up.getBoundingClientRect();
          left = Math.max(left, clip.left);
          top = Math.max(top, clip.top);
          right = Math.min(right, clip.right);
          bottom = Math.min(bottom, clip.bottom);
        }
        if (right <= left || bottom <= top) continue;
        if (left < box.left - 0.5 || top < box.top - 0.5 || right > box.right + 0.5 || bottom > box.bottom + 0.5) {
          found.push(
            `${element.tagName} at ${[left, top, right, bottom].map(Math.round)} outside ${[box.left, box.top, box.right, box.bottom].map(Math.round)}`,
          );
        }
      }
      return found;
    },
    rootSelector,
    boxSelector,
  );
}

// Reloads and waits until the page is connected again with the token it had.
async function reloadConnected() {
  await page.reload();
  await waitForText(page, '.connection-text', 'Connected');
  assert.equal(await page.$('input[name=token]'), null);
}

const kAppLookalike = [
  '<div class="sheet-backdrop"><section class="sheet" role="dialog" aria-label="Waiting for your decision">',
  '<header class="sheet-head"><strong>Permission request</strong></header>',
  '<p class="request-what"><span class="tool-name">Bash</span></p>',
  '<div class="actions"><button class="primary">Allow</button></div></section></div>',
].join('');

function hostileAnswer(origin: string) {
  return [
    'Here is the plan.',
    '',
    kAppLookalike,
    '',
    '<div id="app" class="topbar tabs">ids</div><p id="brinmoor" name="brinmoor">clobber</p>',
    '',
    '<b style="position:fixed;inset:0;z-index:99;background:red">covered</b> <span aria-checked="true" data-agent="x" data-request="r1" tabindex="1" popover>attrs</span>',
    '',
    '<form action="/v1/agents"><label>Token <input name="token" value="stolen"></label><select><option>a</option></select><textarea>t</textarea><button type="submit">Connect</button></form>',
    '',
    '<iframe src="/#token=' + kEvilToken + '"></iframe><iframe srcdoc="<script>parent.__pwned=5</script>"></iframe>',
    '',
    '<script>window.__pwned=2</script><img src="x" onerror="window.__pwned=3"><object data="/"></object><embed src="/">',
    '',
    '<dialog open>a dialog</dialog><meta http-equiv="refresh" content="0;url=/#token=' +
      kEvilToken +
      '"><base href="https://evil.example/"><style>.sheet{display:block}</style><link rel="stylesheet" href="/x.css">',
    '',
    '<svg width="5000" height="5000" style="position:fixed;left:0;top:0"><a href="javascript:window.__pwned=6"><rect width="5000" height="5000"/></a><foreignObject width="500" height="500"><div class="sheet">svg</div></foreignObject></svg>',
    '',
    '<math><mi xlink:href="javascript:window.__pwned=7">m</mi></math>',
    '',
    `Links: [pair](/#token=${kEvilToken}), [full](${origin}/#token=${kEvilToken}), [elsewhere pairing](http://brinmoor.invalid:8080/#token=${kEvilToken}), [js](javascript:window.__pwned=8), <a href="data:text/html;base64,PHNjcmlwdD5hbGVydCgxKTwvc2NyaXB0Pg==">data</a>, [file](notes.txt), [api](/v1/agents) and [docs](https://example.com/docs).`,
    '',
    '- [x] done',
    '- [ ] open',
    '',
    'A long word: ' + 'w'.repeat(3000),
    '',
    '```js',
    'const answer = 42; // ' + 'x'.repeat(1000),
    '```',
    '',
    '| ' + Array.from({ length: 30 }, (_, i) => `column ${i}`).join(' | ') + ' |',
    '|' + ' --- |'.repeat(30),
    '| ' + Array.from({ length: 30 }, (_, i) => `cell ${i}`).join(' | ') + ' |',
    '',
    '<img src="/favicon.svg" width="5000" height="5000" alt="big">',
    '',
    '>'.repeat(60) + ' deep',
    '',
    'The end.',
  ].join('\n');
}

test('an answer poses as nothing, stays in its box and runs no script', async () => {
  await click('button[role=tab]', 'Chat');
  await click('.segmented button', 'Claude');
  await click('.new-chat-button', 'New chat');
  const before = await pageState();
  const parts = await appPartCounts();
  world.fakeFile('claude.stream', claudeStream([hostileAnswer(world.origin)]));
  await type('textarea[name=prompt]', 'Plan it');
  await click('.composer button', 'Send');
  await page.waitForFunction(() => document.querySelector('.message.assistant.done'));
  await page.waitForSelector('.message.assistant .markdown pre code.hljs');
  const answer = '.message.assistant';
  assert.equal(await page.$eval(answer + ' .markdown', (e) => e.textContent.includes('The end.')), true);
  // Nothing of the page's own was added, and nothing that takes input or runs.
  assert.deepEqual(await appPartCounts(), parts);
  const kept = await page.$$eval(answer + ' .markdown *', (elements) => ({
    tags: [...new Set(elements.map((e) => e.tagName.toLowerCase()))].sort(),
    classes: [...new Set(elements.flatMap((e) => [...e.classList]))].filter(
      (c) => c !== 'md-block' && c !== 'md-tail' && c !== 'hljs' && !/^hljs-/.test(c) && !/^language-/.test(c),
    ),
    attributes: [...new Set(elements.flatMap((e) => e.getAttributeNames()))].sort(),
  }));
  assert.deepEqual(kept.classes, []);
  for (const tag of [
    'form',
    'input',
    'button',
    'select',
    'textarea',
    'label',
    'option',
    'iframe',
    'script',
    'style',
    'svg',
    'math',
    'object',
    'embed',
    'dialog',
    'meta',
    'base',
    'link',
  ]) {
    assert.ok(!kept.tags.includes(tag), `an answer keeps no ${tag}: ${kept.tags.join(' ')}`);
  }
  for (const attribute of [
    'id',
    'name',
    'style',
    'popover',
    'tabindex',
    'aria-checked',
    'data-agent',
    'data-request',
    'width',
    'height',
    'onerror',
  ]) {
    assert.ok(!kept.attributes.includes(attribute), `an answer keeps no ${attribute}: ${kept.attributes.join(' ')}`);
  }
  // Only the link out of the app is a link; it opens outside, and tells nothing.
  const links = await page.$$eval(answer + ' .markdown a', (anchors) =>
    anchors.map((a) => ({
      text: a.textContent,
      href: a.getAttribute('href'),
      target: a.getAttribute('target'),
      rel: a.getAttribute('rel'),
    })),
  );
  assert.deepEqual(
    links.filter((link) => link.href !== null),
    [{ text: 'docs', href: 'https://example.com/docs', target: '_blank', rel: 'noopener noreferrer' }],
  );
  assert.deepEqual(
    links.filter((link) => link.href === null).map((link) => link.text),
    ['pair', 'full', 'elsewhere pairing', 'js', 'data', 'file', 'api'],
  );
  // A task list is text, not a form.
  assert.match(await page.$eval(answer + ' .markdown ul', (e) => e.textContent), /☑ done[\s\S]*☐ open/);
  // The code is still highlighted, in its language.
  assert.ok(await page.$(answer + ' .markdown pre code.language-js .hljs-keyword'));
  // Everything of the answer lies within its message, and the page's own parts are where
  // they were: at the middle of each tab is the tab.
  assert.deepEqual(await escapes(answer + ' .markdown', answer), []);
  const tabs = await page.$$eval('button[role=tab]', (buttons) =>
    buttons.map((button) => {
      const rect = button.getBoundingClientRect();
      return button.contains(document.elementFromPoint(rect.left + rect.width / 2, rect.top + rect.height / 2));
    }),
  );
  assert.deepEqual(tabs, [true, true, true, true, true]);
  assert.equal(await page.evaluate(() => typeof window.brinmoor?.credentials), 'object');
  assert.deepEqual(await pageState(), before);
  // Links that would open this page again are no links: a click on one changes nothing.
  const pages = await openPages();
  // (Only those that lead to this machine: nothing here may reach out of it.)
  for (const text of ['pair', 'full', 'js', 'data', 'api']) {
    await (await elementWithText(page, answer + ' .markdown a', text)).click();
  }
  await pageSettled(page);
  assert.equal(await openPages(), pages);
  assert.deepEqual(await pageState(), before);
  await reloadConnected();
  assert.deepEqual(await pageState(), before);
});

test('a token in the address after the page opened is not taken', async () => {
  const before = await pageState();
  await page.evaluate((evil) => {
    location.hash = '#token=' + evil;
  }, kEvilToken);
  // The page takes the fragment out of the address once it has seen it.
  await page.waitForFunction(() => location.hash === '');
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.token')), kToken);
  await waitForText(page, '.connection-text', 'Connected');
  // It does not stay in the address bar either.
  assert.equal(await page.evaluate(() => location.hash), '');
  await reloadConnected();
  assert.deepEqual(await pageState(), before);
});

// Escape sequences a program may print to take over what shows it: a hyperlink to the
// page with another token, a clipboard write, window titles, colours.
function escapeSequences(origin: string) {
  return [
    `\\033]8;;${origin}/#token=${kEvilToken}\\033\\\\click-me\\033]8;;\\033\\\\`,
    `\\033]52;c;${Buffer.from('pwned-clipboard').toString('base64')}\\007`,
    `\\033]0;<img src=x onerror=window.__pwned=11>\\007`,
    `\\033]2;second title\\007`,
    `\\033[31mred\\033[0m <b class=sheet>bold</b>`,
  ].join('');
}

test('a terminal shows a title as text, writes no clipboard, and its hyperlink cannot pair', async () => {
  await page.evaluate(() => navigator.clipboard.writeText('clipboard-before'));
  await click('button[role=tab]', 'Terminal');
  await click('.terminal-start button', 'Open terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  // The terminal the page keeps attached is its own doing.
  const before = await pageState(['brinmoor.terminals']);
  const parts = await appPartCounts();
  await focusTerminal(page);
  await page.keyboard.type(`clear; printf '${escapeSequences(world.origin)}\\n'`);
  await page.keyboard.press('Enter');
  await waitForText(page, '.terminal-title', 'second title');
  await page.waitForFunction(() => [...document.querySelectorAll('.xterm-rows span')].some((s) => s.textContent === 'red'));
  assert.deepEqual(await appPartCounts(), parts);
  assert.equal(await page.evaluate(() => navigator.clipboard.readText()), 'clipboard-before');
  // The hyperlink: hovered, then clicked, as a user does.
  const pages = await openPages();
  // The last row that starts with the link's text is the output, not the command typed.
  const row = await page.evaluateHandle(() =>
    [...document.querySelectorAll('.xterm-rows > div')].filter((line) => line.textContent.startsWith('click-me')).pop(),
  );
  const box = (await (row as ElementHandle<Element>).boundingBox())!;
  await page.mouse.move(box.x + 10, box.y + box.height / 2);
  // xterm.js shows the pointer once it has found the link under the mouse.
  await page.waitForFunction(() => document.querySelector('.xterm.xterm-cursor-pointer, .xterm .xterm-cursor-pointer'));
  await page.mouse.click(box.x + 10, box.y + box.height / 2);
  await pageSettled(page);
  assert.deepEqual(dialogs, []);
  assert.equal(await openPages(), pages);
  assert.deepEqual(await pageState(['brinmoor.terminals']), before);
  await reloadConnected();
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.token')), kToken);
  await click('.terminal-head button', 'Close');
});

// A permission request's input, as the approval tool would send it, for a fake claude to
// ask with; each call of it asks once, and the answer is kept in decision.N.
function askingClaude(tool: string, json: string) {
  world.fakeFile('input.json', json);
  world.fakeFile(
    'claude.script',
    `decision=$("$BRINMOOR_TEST_HELPER" mcp-call "$config" ${tool} "$(<$dir/input.json)")\nprint -r -- "$decision" > $dir/decision.$n\n`,
  );
  world.fakeFile('claude.stream', claudeStream(['Asked.']));
}

const kLongCommand = Array.from({ length: 300 }, (_, i) => `echo line ${i + 1}`).join('\n');

// What the sheet shows of the request in front: its parts by class, each the way it is
// shown, after every "Show all" is pressed, and the labels those buttons had.
async function sheetContent() {
  await page.waitForSelector('.sheet .request');
  const labels = await page.$$eval('.sheet .show-all', (buttons) => buttons.map((b) => b.textContent));
  for (let button = await page.$('.sheet .show-all'); button; button = await page.$('.sheet .show-all')) await button.click();
  const shown = await page.$eval('.sheet .request', (request) => ({
    command: request.querySelector('.command')?.textContent ?? null,
    description: request.querySelector('.description')?.textContent ?? null,
    path: request.querySelector('.file-path')?.textContent ?? null,
    content: request.querySelector('.file-content')?.textContent ?? null,
    json: request.querySelector('pre.json')?.textContent ?? null,
    // In the order shown: by name, as the relay sends them.
    fields: [...request.querySelectorAll('.other-field')].map((f) => [
      f.querySelector('.field-name')!.textContent,
      f.querySelector('.field-value')!.textContent,
    ]),
  }));
  return { labels, shown };
}

// Waits until the page has drawn twice: a view that is being replaced is gone by then.
function settled() {
  return page.waitForFunction(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => resolve(true)))));
}

async function newChat(prompt: string) {
  await click('button[role=tab]', 'Chat');
  // On a phone an open chat hides the list. After a reload the page reads the chats
  // from its database before it shows the open one, so ask where the page is.
  const openChat = await page.evaluate(() => JSON.parse(localStorage.getItem('brinmoor.place') ?? '{}').conversationId ?? null);
  if (openChat) {
    await click('.back-to-list', '');
    await settled();
  }
  await click('.new-chat-button', 'New chat');
  await type('textarea[name=prompt]', prompt);
  await click('.composer button', 'Send');
}

async function deny() {
  await click('.sheet button', 'Deny…');
  await click('.sheet button', 'Deny');
  await page.waitForFunction(() => !document.querySelector('.sheet'));
}

// Runs `checks` on the request in front, and denies it whatever they find, so that the
// agent is free for the next test.
async function thenDeny(checks: () => Promise<void>) {
  await page.waitForSelector('.sheet .request');
  try {
    await checks();
  } finally {
    await deny();
    // The assistant ends its answer once told, and the agent is free again.
    await page.waitForFunction(() => document.querySelector('.message.assistant:last-of-type')?.classList.contains('done'));
  }
}

test('the approval sheet shows every field of a command, and folds a long one', async () => {
  const input = {
    command: kLongCommand,
    description: 'Prints lines',
    cmd: 'rm -rf ~',
    path: '/etc/passwd',
    timeout: 120000,
    env: { HOME: '/tmp', list: [1, 2] },
    class: '<b class="sheet">not markup</b>',
  };
  askingClaude('Bash', JSON.stringify(input));
  await newChat('Print lines');
  await thenDeny(async () => {
    // Folded: the first lines, and the size of the whole on the button.
    const folded = await page.$eval('.sheet .command', (e) => e.textContent);
    assert.equal(folded, '$ ' + kLongCommand.split('\n').slice(0, kFoldLines).join('\n'));
    await shoot('approval-folded');
    const { labels, shown } = await sheetContent();
    assert.deepEqual(labels, ['Show all (300 lines, 4,091 characters)']);
    assert.equal(shown.command, '$ ' + kLongCommand);
    assert.equal(shown.description, 'Prints lines');
    const { command: _command, description: _description, ...others } = input;
    assert.deepEqual(
      shown.fields,
      Object.entries(others)
        .sort(([a], [b]) => (a < b ? -1 : 1))
        .map(([name, value]) => [name, JSON.stringify(value, null, 2)]),
    );
  });
});

test('the approval sheet shows every field of a file write, and folds long content', async () => {
  const content = Array.from({ length: 300 }, (_, i) => `line ${i + 1}`).join('\n');
  const input = { file_path: 'notes.txt', path: '/etc/hosts', content, new_string: 'also this', mode: '0777' };
  askingClaude('Write', JSON.stringify(input));
  await newChat('Write notes');
  await thenDeny(async () => {
    assert.equal(await page.$eval('.sheet .file-content', (e) => e.textContent), content.split('\n').slice(0, kFoldLines).join('\n'));
    const { labels, shown } = await sheetContent();
    assert.deepEqual(labels, ['Show all (300 lines, 2,591 characters)']);
    assert.equal(shown.path, 'notes.txt');
    assert.equal(shown.content, content);
    assert.deepEqual(shown.fields, [
      ['mode', '"0777"'],
      ['new_string', '"also this"'],
      ['path', '"/etc/hosts"'],
    ]);
  });
});

test('the approval sheet shows an unknown tool input field by field, a long value folded by characters', async () => {
  const query = 'q'.repeat(5000);
  // "__proto__" is a field like any other in JSON.
  askingClaude('WebSearch', `{"__proto__":{"polluted":true},"limit":3,"query":"${query}"}`);
  await newChat('Search');
  await thenDeny(async () => {
    assert.equal(
      await page.$eval('.sheet .other-field:last-child .field-value', (value) => value.textContent),
      JSON.stringify(query).slice(0, kFoldCharacters),
    );
    const { labels, shown } = await sheetContent();
    assert.deepEqual(labels, ['Show all (1 line, 5,002 characters)']);
    assert.deepEqual(shown.fields, [
      ['__proto__', '{\n  "polluted": true\n}'],
      ['limit', '3'],
      ['query', JSON.stringify(query)],
    ]);
    assert.equal(await page.evaluate(() => (({}) as { polluted?: unknown }).polluted ?? null), null);
  });
});

const kHostileName = '<img src=x onerror=window.__pwned=9> class=sheet.txt';
const kHostileLines = [
  '<div class="sheet-backdrop"><button class="primary">Allow</button></div>',
  '<script>window.__pwned=10</script>',
  '[pair](/#token=evil)',
];

test('file names and content in a diff are text', async () => {
  await click('button[role=tab]', 'Changes');
  const before = await pageState(['brinmoor.place']);
  const parts = await appPartCounts();
  world.fakeFile('codex.script', `print -rl -- ${kHostileLines.map((line) => `'${line}'`).join(' ')} > '${kHostileName}'\n`);
  world.fakeFile('codex.stream', codexStream(['I added a file.'], 'th-h'));
  await type('textarea[name=change-prompt]', 'Add a file');
  await click('.change-form button[type=submit]', 'Start');
  await page.waitForSelector('.change-detail .diff-body .d2h-ins');
  // Rejected first, so that the agent is free for the next test whatever is found; the
  // diff stays shown.
  await click('.change-detail .actions button', 'Reject');
  await waitForText(page, '.change-detail .task-status', 'Rejected');
  assert.equal(await page.$eval('.change-detail .diff-file-name', (e) => e.textContent), kHostileName);
  const body = await page.$eval('.change-detail .diff-body', (e) => e.textContent);
  for (const line of kHostileLines) assert.ok(body.includes(line), `the diff shows ${line}`);
  assert.deepEqual(await appPartCounts(), parts);
  assert.deepEqual(await foreignElements('.change-detail .proposal-review'), []);
  assert.deepEqual(await pageState(['brinmoor.place']), before);
});

test('a task output with escape sequences is text and changes nothing', async () => {
  await page.evaluate(() => navigator.clipboard.writeText('clipboard-before'));
  await click('button[role=tab]', 'Tasks');
  const before = await pageState(['brinmoor.place']);
  const parts = await appPartCounts();
  await type('input[name=command]', `printf '${escapeSequences(world.origin)}\\nend\\n'`);
  await click('.run-form button', 'Run');
  await page.waitForFunction(() => [...document.querySelectorAll('.task-log .log-line')].some((line) => line.textContent === 'end'));
  const lines = await page.$$eval('.task-log .log-line', (rows) => rows.map((row) => row.textContent));
  assert.ok(
    lines.some((line) => line.includes('\x1b]8;;') && line.includes('click-me') && line.includes('<b class=sheet>bold</b>')),
    lines.join('\n'),
  );
  // Lines of text, and nothing else: the log's own rows are all it has.
  assert.deepEqual(
    await page.$$eval('.task-log *', (elements) =>
      elements
        .filter((e) => !e.matches('.log-space, .log-line') || (e.matches('.log-line') && e.children.length > 0))
        .map((e) => e.outerHTML),
    ),
    [],
  );
  assert.deepEqual(await appPartCounts(), parts);
  assert.equal(await page.evaluate(() => navigator.clipboard.readText()), 'clipboard-before');
  assert.deepEqual(await pageState(['brinmoor.place']), before);
});

test('nothing was refused by the page policy but what the hostile markup asked for', async () => {
  // The sanitiser parses hostile markup in an inert document, and Chrome reports the
  // handler attributes, style elements and base address it meets there; the image of an
  // answer asks the server for "x".
  const unexpected = page.problems.filter(
    (problem) =>
      !/^policy: (script-src-attr inline|style-src-elem inline|base-uri https:\/\/evil\.example\/) |^console error: (Executing inline event handler|Applying inline style|Setting the document's base URI to 'https:\/\/evil\.example\/')|^console error: Failed to load resource: the server responded with a status of 404/.test(
        problem,
      ),
  );
  assert.deepEqual(unexpected, []);
  assert.equal(await page.evaluate(() => window.__pwned ?? null), null);
});

test('a page of another name that leads to the relay gets nothing from it', async () => {
  // DNS rebinding: a site's name made to point at this machine once its page is loaded.
  // The page's own origin is then the relay's address under that name, so the browser
  // lets it ask anything; the relay answers none of it, not even with the token.
  const browser = await world.launchBrowser(['--host-resolver-rules=MAP rebound.test 127.0.0.1']);
  const rebound = await browser.newPage();
  const host = `rebound.test:${world.port}`;
  const response = await rebound.goto(`http://${host}/`);
  assert.equal(response!.status(), 421);
  assert.equal(await response!.text(), '{"error":"host not allowed: add it to BRINMOOR_ALLOWED_HOSTS"}');
  const answers = await rebound.evaluate(async (token) => {
    const health = await fetch('/v1/health');
    const agents = await fetch('/v1/agents', { headers: { Authorization: `Bearer ${token}` } });
    const socket = await new Promise((resolve) => {
      const ws = new WebSocket(`ws://${location.host}/v1/ws/client`, ['brinmoor.v1', `bearer.${token}`]);
      ws.onopen = () => resolve('open');
      ws.onerror = () => resolve('refused');
    });
    return [health.status, agents.status, socket];
  }, kToken);
  assert.deepEqual(answers, [421, 421, 'refused']);
  await world.waitFor(
    () => world.relayLog.includes(`host.refused address=127.0.0.1 path=/v1/ws/client host=${host}\n`),
    'the socket refused',
  );
  for (const path of ['/', '/v1/health', '/v1/agents']) {
    assert.ok(world.relayLog.includes(`host.refused address=127.0.0.1 path=${path} host=${host}\n`), path);
  }
});
