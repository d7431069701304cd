// Untrusted text where the page shows it: an assistant's answer and a terminal's output.
// Neither may run a script, draw outside its own box, pose as the page, open the page
// again with another token, or change what the page keeps; nor may an address that
// comes after the page opened.
import assert from 'node:assert/strict';
import { after, before, test as nodeTest } from 'node:test';
import {
  claudeStream,
  clickText,
  elementWithText,
  focusTerminal,
  kAgentId,
  kToken,
  testLeavingPictures,
  waitForText,
  World,
} from './harness.mjs';

const world = new World();
let page;
const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };
const kEvilToken = 'evil-token-0d1e';

const test = testLeavingPictures(nodeTest, 'hostile-', () => [[page, '']]);

// Dialogs the page opened (a terminal's hyperlink asks before it opens, by default).
const dialogs = [];

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

const click = (selector, text) => clickText(page, selector, text);

async function type(selector, text) {
  await page.waitForSelector(selector, { visible: true });
  await page.type(selector, text);
}

// What the page keeps and where it is: none of it may change because of what it shows.
// The seqs it resumes from move with every message, and a task the user starts is kept
// with its payload; both are the page's own doing, as is `ignored` (where the user went).
function pageState(ignored = []) {
  return page.evaluate((skip) => {
    const kept = {};
    for (let i = 0; i < localStorage.length; i++) {
      const key = localStorage.key(i);
      if (!skip.includes(key)) kept[key] = localStorage.getItem(key);
    }
    return { href: location.href, title: document.title, token: localStorage.getItem('brinmoor.token'), kept, pwned: window.__pwned ?? null };
  }, ['brinmoor.seqs', 'brinmoor.taskPayloads', ...ignored]);
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
      ['.sheet-backdrop', '.sheet', '.topbar', '.tabs', '.token-page', 'iframe', 'script', 'dialog', 'math', '[popover]', '[onerror]'].map((selector) => [
        selector,
        document.querySelectorAll(selector).length,
      ]),
    ),
  );
}

// Every element under `root` that reaches out of `box`'s border box, once what its own
// scroll areas inside `box` hide is taken away; and every element that is positioned.
function escapes(rootSelector, boxSelector) {
  return page.evaluate(
    (rootSel, boxSel) => {
      const root = document.querySelector(rootSel);
      const box = document.querySelector(boxSel).getBoundingClientRect();
      const found = [];
      for (const element of root.querySelectorAll('*')) {
        const position = getComputedStyle(element).position;
        if (position !== 'static') found.push(`${element.tagName} is ${position}`);
        let rect = element.getBoundingClientRect();
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
          found.push(`${element.tagName} at ${[left, top, right, bottom].map(Math.round)} outside ${[box.left, box.top, box.right, box.bottom].map(Math.round)}`);
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

function hostileAnswer(origin) {
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
    '<dialog open>a dialog</dialog><meta http-equiv="refresh" content="0;url=/#token=' + kEvilToken + '"><base href="https://evil.example/"><style>.sheet{display:block}</style><link rel="stylesheet" href="/x.css">',
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
    classes: [...new Set(elements.flatMap((e) => [...e.classList]))].filter((c) => c !== 'md-block' && c !== 'md-tail' && c !== 'hljs' && !/^hljs-/.test(c) && !/^language-/.test(c)),
    attributes: [...new Set(elements.flatMap((e) => e.getAttributeNames()))].sort(),
  }));
  assert.deepEqual(kept.classes, []);
  for (const tag of ['form', 'input', 'button', 'select', 'textarea', 'label', 'option', 'iframe', 'script', 'style', 'svg', 'math', 'object', 'embed', 'dialog', 'meta', 'base', 'link']) {
    assert.ok(!kept.tags.includes(tag), `an answer keeps no ${tag}: ${kept.tags.join(' ')}`);
  }
  for (const attribute of ['id', 'name', 'style', 'popover', 'tabindex', 'aria-checked', 'data-agent', 'data-request', 'width', 'height', 'onerror']) {
    assert.ok(!kept.attributes.includes(attribute), `an answer keeps no ${attribute}: ${kept.attributes.join(' ')}`);
  }
  // Only the link out of the app is a link; it opens outside, and tells nothing.
  const links = await page.$$eval(answer + ' .markdown a', (anchors) =>
    anchors.map((a) => ({ text: a.textContent, href: a.getAttribute('href'), target: a.getAttribute('target'), rel: a.getAttribute('rel') })),
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
  assert.deepEqual(tabs, [true, true, true, true]);
  assert.equal(await page.evaluate(() => typeof window.brinmoor?.credentials), 'object');
  assert.deepEqual(await pageState(), before);
  // Links that would open this page again are no links: a click on one changes nothing.
  const pages = await openPages();
  // (Only those that lead to this machine: nothing here may reach out of it.)
  for (const text of ['pair', 'full', 'js', 'data', 'api']) {
    await (await elementWithText(page, answer + ' .markdown a', text)).click();
  }
  await new Promise((resolve) => setTimeout(resolve, 500));
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
  await new Promise((resolve) => setTimeout(resolve, 300));
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.token')), kToken);
  await waitForText(page, '.connection-text', 'Connected');
  // It does not stay in the address bar either.
  assert.equal(await page.evaluate(() => location.hash), '');
  await reloadConnected();
  assert.deepEqual(await pageState(), before);
});

// Escape sequences a program may print to take over what shows it: a hyperlink to the
// page with another token, a clipboard write, window titles, colours.
function escapeSequences(origin) {
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
  const row = await page.evaluateHandle(() => [...document.querySelectorAll('.xterm-rows > div')].filter((line) => line.textContent.startsWith('click-me')).pop());
  const box = await row.boundingBox();
  await page.mouse.move(box.x + 10, box.y + box.height / 2);
  await new Promise((resolve) => setTimeout(resolve, 300));
  await page.mouse.click(box.x + 10, box.y + box.height / 2);
  await new Promise((resolve) => setTimeout(resolve, 1000));
  assert.deepEqual(dialogs, []);
  assert.equal(await openPages(), pages);
  assert.deepEqual(await pageState(['brinmoor.terminals']), before);
  await reloadConnected();
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.token')), kToken);
  await click('.terminal-head button', 'Close');
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
