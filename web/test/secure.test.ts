import { describe, expect, it } from 'vitest';
import type { ServerMessage } from '../src/protocol/messages';
import {
  approvalAttention,
  BackgroundNotifier,
  NotificationOffer,
  proposalAttention,
  type Attention,
} from '../src/secure/background_notifier';
import { clickedTarget } from '../src/secure/service_worker_client';
import { UnencryptedNotice } from '../src/secure/unencrypted_notice';
import { shellCacheName, shellRoute, staleShellCaches } from '../src/service_worker/shell_routes';
import { MemoryStorage } from '../src/stores/observable';
import { TasksStore } from '../src/stores/tasks_store';
import { headingId, readmeSection, readmeSectionPage } from '../build_support/readme_section';

const request = { requestId: 'R1', taskId: 'T1', agentId: 'mac', toolName: 'Write', toolInput: { file_path: 'a.txt' } };

function proposalTask() {
  const store = new TasksStore({ createTask: async () => 'T', cancelTask: () => true, decideProposal: () => true }, new MemoryStorage());
  const proposal = {
    proposalId: 'P',
    proposalSummary: '2 files',
    proposalCommentary: 'why',
    proposalDiff: 'diff',
    proposalFiles: ['a.txt', 'b.txt'],
  };
  store.handle({ type: 'task.awaiting_approval', agentId: 'mac', taskId: 'P1', ...proposal } as unknown as ServerMessage);
  return store.awaitingApproval()[0];
}

describe('what a notification says', () => {
  it('names the assistant and the tool of a permission request', () => {
    expect(approvalAttention(request, 'claude')).toEqual({
      tag: 'approval:R1',
      title: 'Approval needed',
      body: 'claude wants to use Write',
      open: { kind: 'approval', requestId: 'R1' },
    });
    expect(approvalAttention(request, undefined).body).toBe('An assistant wants to use Write');
  });

  it('counts the files of a proposal and names its project', () => {
    const task = proposalTask();
    task.projectPath = '/r/App';
    expect(proposalAttention(task)).toEqual({
      tag: 'proposal:P1',
      title: 'Changes to review',
      body: '2 files changed in App',
      open: { kind: 'proposal', agentId: 'mac', projectPath: '/r/App', taskId: 'P1' },
    });
    task.projectPath = '';
    expect(proposalAttention(task).body).toBe('2 files changed in mac');
  });
});

describe('BackgroundNotifier', () => {
  function notifier(hidden: boolean, permission: NotificationPermission = 'granted') {
    const host = { hidden, permission, shown: [] as string[] };
    const background = new BackgroundNotifier({
      hidden: () => host.hidden,
      permission: () => host.permission,
      show: (attention: Attention) => host.shown.push(`${attention.title}: ${attention.body}`),
    });
    return { host, background };
  }
  const first = approvalAttention(request, 'claude');
  const second = approvalAttention({ ...request, requestId: 'R2', toolName: 'Bash' }, 'codex');

  it('shows what arrives while the page is hidden, once', () => {
    const { host, background } = notifier(true);
    expect(background.update([first])).toEqual([first]);
    expect(background.update([first, second])).toEqual([second]);
    expect(background.update([first, second])).toEqual([]);
    expect(host.shown).toEqual(['Approval needed: claude wants to use Write', 'Approval needed: codex wants to use Bash']);
  });

  it('shows nothing while the page is visible, nor later for what was seen then', () => {
    const { host, background } = notifier(false);
    expect(background.update([first])).toEqual([]);
    host.hidden = true;
    expect(background.update([first, second])).toEqual([second]);
    expect(host.shown).toEqual(['Approval needed: codex wants to use Bash']);
  });

  it('shows nothing without the permission', () => {
    for (const permission of ['default', 'denied'] as const) {
      const { host, background } = notifier(true, permission);
      expect(background.update([first])).toEqual([]);
      expect(host.shown).toEqual([]);
    }
  });
});

describe('NotificationOffer', () => {
  it('is made while the browser has not been asked, and only until it is answered', () => {
    const storage = new MemoryStorage();
    const offer = new NotificationOffer(storage);
    expect(offer.shown('default')).toBe(true);
    expect(offer.shown('granted')).toBe(false);
    expect(offer.shown('denied')).toBe(false);
    expect(offer.shown(null)).toBe(false);
    offer.answer();
    expect(offer.shown('default')).toBe(false);
    expect(new NotificationOffer(storage).shown('default')).toBe(false);
    expect(new NotificationOffer(new MemoryStorage()).shown('default')).toBe(true);
  });
});

describe('UnencryptedNotice', () => {
  it('shows over plain HTTP until dismissed, and remembers the dismissal', () => {
    const storage = new MemoryStorage();
    const notice = new UnencryptedNotice(storage, false);
    expect(notice.shown).toBe(true);
    notice.dismiss();
    expect(notice.shown).toBe(false);
    expect(new UnencryptedNotice(storage, false).shown).toBe(false);
    expect(new UnencryptedNotice(new MemoryStorage(), false).shown).toBe(true);
  });

  it('never shows in a secure context', () => {
    expect(new UnencryptedNotice(new MemoryStorage(), true).shown).toBe(false);
  });
});

describe('a click the service worker reports', () => {
  it('is taken only with a whole target', () => {
    const approval = { kind: 'approval', requestId: 'R1' };
    const proposal = { kind: 'proposal', agentId: 'mac', projectPath: '/r/App', taskId: 'P1' };
    expect(clickedTarget({ type: 'brinmoor.notificationclick', data: approval })).toEqual(approval);
    expect(clickedTarget({ type: 'brinmoor.notificationclick', data: proposal })).toEqual(proposal);
    expect(clickedTarget({ type: 'brinmoor.notificationclick', data: { kind: 'proposal', agentId: 'mac' } })).toBeNull();
    expect(clickedTarget({ type: 'brinmoor.notificationclick', data: { kind: 'approval' } })).toBeNull();
    expect(clickedTarget({ type: 'other', data: approval })).toBeNull();
    expect(clickedTarget('brinmoor.notificationclick')).toBeNull();
    expect(clickedTarget(null)).toBeNull();
  });
});

describe('shellRoute', () => {
  const origin = 'https://mac.example:8443';
  const files = new Set(['/', '/assets/index-abc.js', '/manifest.webmanifest']);
  const route = (url: string, mode = 'cors', method = 'GET') => shellRoute({ url, mode, method }, origin, files);

  it('never intercepts the relay: its API and WebSockets go to the network', () => {
    expect(route(origin + '/v1/agents')).toBe('network');
    expect(route(origin + '/v1/ws/client', 'websocket')).toBe('network');
    expect(route(origin + '/v1', 'navigate')).toBe('network');
    expect(route(origin + '/v1/permissions/R1', 'navigate')).toBe('network');
    expect(route(origin + '/v1/agents', 'cors', 'POST')).toBe('network');
  });

  it('serves navigations as the shell, whatever the fragment carries', () => {
    expect(route(origin + '/', 'navigate')).toBe('shell');
    expect(route(origin + '/#token=secret', 'navigate')).toBe('shell');
    expect(route(origin + '/?x=1', 'navigate')).toBe('shell');
  });

  it("takes this build's files from the cache, and nothing else", () => {
    expect(route(origin + '/assets/index-abc.js')).toBe('precached');
    expect(route(origin + '/manifest.webmanifest')).toBe('precached');
    expect(route(origin + '/assets/index-abc.js?v=2')).toBe('network');
    expect(route(origin + '/assets/index-old.js')).toBe('network');
    expect(route(origin + '/v1x')).toBe('network');
    expect(route(origin + '/', 'cors', 'POST')).toBe('network');
    expect(route('https://elsewhere.example/assets/index-abc.js')).toBe('network');
    expect(route('http://mac.example:8443/assets/index-abc.js')).toBe('network');
    expect(route('not a url')).toBe('network');
  });

  it("names a build's cache after its version and leaves only that one", () => {
    const current = shellCacheName('v2');
    expect(current).toBe('brinmoor-shell-v2');
    expect(staleShellCaches(['brinmoor-shell-v1', current, 'other-cache'], current)).toEqual(['brinmoor-shell-v1']);
  });
});

describe('the README section page', () => {
  const readme =
    '# Title\n\n## First\n\none\n\n## Reach it from anywhere\n\nSee [docs/protocol.md](docs/protocol.md), [above](#first), [below](#a-local-certificate-authority-mkcert) and [mkcert](https://github.com/FiloSottile/mkcert).\n\n### A local certificate authority: mkcert\n\n<b>x</b> & y\n\n## After\n\nnot this\n';

  it('takes the section up to the next one', () => {
    expect(readmeSection(readme, 'Reach it from anywhere').split('\n')).toEqual([
      '## Reach it from anywhere',
      '',
      'See [docs/protocol.md](docs/protocol.md), [above](#first), [below](#a-local-certificate-authority-mkcert) and [mkcert](https://github.com/FiloSottile/mkcert).',
      '',
      '### A local certificate authority: mkcert',
      '',
      '<b>x</b> & y',
      '',
    ]);
    expect(() => readmeSection(readme, 'Missing')).toThrow('the README has no section "Missing"');
  });

  it('gives headings their ids and keeps only the links that work outside the repository', () => {
    expect(headingId('A local certificate authority: mkcert')).toBe('a-local-certificate-authority-mkcert');
    expect(headingId('Behind a reverse proxy: nginx')).toBe('behind-a-reverse-proxy-nginx');
    const page = readmeSectionPage(readme, 'Reach it from anywhere');
    expect(page).toContain('<title>Reach it from anywhere · Brinmoor</title>');
    expect(page).toContain('<h2 id="reach-it-from-anywhere">Reach it from anywhere</h2>');
    expect(page).toContain('<h3 id="a-local-certificate-authority-mkcert">A local certificate authority: mkcert</h3>');
    expect(page).toContain(
      '<p>See docs/protocol.md, above, <a href="#a-local-certificate-authority-mkcert">below</a> and <a href="https://github.com/FiloSottile/mkcert">mkcert</a>.</p>',
    );
    expect(page).not.toContain('not this');
  });
});
