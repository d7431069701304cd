import '@xterm/xterm/css/xterm.css';
import { FitAddon } from '@xterm/addon-fit';
import { Terminal } from '@xterm/xterm';
import { useEffect, useRef, useState } from 'preact/hooks';
import { withAdoptedStyles } from '../lib/adopted_styles';
import { openOutside } from '../lib/outside_links';
import { skipEmptySelectionRedraws } from '../lib/terminal_redraws';
import { useStores } from '../lib/use_store';
import type { Completion, TerminalSession } from '../stores/terminals_store';
import type { ProjectProps } from './ProjectView';

type State = ProjectProps['state'];

const kKeys: { label: string; data?: string; ctrl?: true; name: string }[] = [
  { label: 'Esc', data: '\x1b', name: 'Esc' },
  { label: 'Tab', data: '\t', name: 'Tab' },
  { label: 'Ctrl', ctrl: true, name: 'Ctrl' },
  { label: '←', data: '\x1b[D', name: 'Left' },
  { label: '↑', data: '\x1b[A', name: 'Up' },
  { label: '↓', data: '\x1b[B', name: 'Down' },
  { label: '→', data: '\x1b[C', name: 'Right' },
  { label: 'Home', data: '\x1b[H', name: 'Home' },
  { label: 'End', data: '\x1b[F', name: 'End' },
  { label: 'PgUp', data: '\x1b[5~', name: 'PgUp' },
  { label: 'PgDn', data: '\x1b[6~', name: 'PgDn' },
  { label: '^C', data: '\x03', name: 'Control C' },
  { label: '^D', data: '\x04', name: 'Control D' },
  { label: '^Z', data: '\x1a', name: 'Control Z' },
  { label: '|', data: '|', name: 'Bar' },
  { label: '~', data: '~', name: 'Tilde' },
  { label: '/', data: '/', name: 'Slash' },
];

// Ctrl with a key: the control character of a letter (and of the few others that have one).
export function withControl(data: string): string {
  if (data.length !== 1) return data;
  const code = data.toUpperCase().charCodeAt(0);
  if (code >= 64 && code <= 95) return String.fromCharCode(code - 64);
  if (data === ' ') return '\x00';
  if (data === '?') return '\x7f';
  return data;
}

// The browser tests check every byte a terminal is given through this function, which
// only they define.
type TerminalTap = (sessionId: string, data: string, reset: boolean) => void;
const testTap = (): TerminalTap | undefined => (globalThis as { brinmoorTerminalTap?: TerminalTap }).brinmoorTerminalTap;

function theme() {
  const dark = matchMedia('(prefers-color-scheme: dark)').matches;
  return dark
    ? { background: '#101217', foreground: '#d8dde6', cursor: '#8ab4ff', selectionBackground: '#33415c' }
    : { background: '#fbfbfc', foreground: '#1d2330', cursor: '#3b5bdb', selectionBackground: '#c9d6ff' };
}

// The project's terminal: an interactive shell on the agent's pty in xterm.js, or a
// line-mode shell with a line editor, history and path completion.
export default function TerminalView({ state, agentId, projectPath }: ProjectProps) {
  useStores(state.terminals, state.connection);
  const session = state.terminals.forProject(agentId, projectPath);
  if (!session) {
    return (
      <div class="terminal-start">
        <p class="muted">A shell in {projectPath} on {agentId}. It keeps running when you leave this page.</p>
        <div class="actions">
          <button class="primary" onClick={() => state.terminals.open(agentId, projectPath, 'interactive')}>
            Open terminal
          </button>
          <button class="secondary" onClick={() => state.terminals.open(agentId, projectPath, 'line')}>
            Line mode
          </button>
        </div>
      </div>
    );
  }
  return <TerminalScreen key={session.sessionId} state={state} session={session} />;
}

function TerminalScreen({ state, session }: { state: State; session: TerminalSession }) {
  const host = useRef<HTMLDivElement>(null);
  const terminal = useRef<Terminal | null>(null);
  const [title, setTitle] = useState('');
  const [ctrl, setCtrl] = useState(false);
  const ctrlRef = useRef(false);
  const [completion, setCompletion] = useState<Completion | null>(null);
  const interactive = session.mode === 'interactive';
  const running = session.status === 'running';

  const send = (data: string) => {
    if (ctrlRef.current) {
      data = withControl(data);
      ctrlRef.current = false;
      setCtrl(false);
    }
    state.terminals.input(session, data);
  };

  useEffect(() => {
    const term = withAdoptedStyles(document, () => new Terminal({
      fontFamily: 'ui-monospace, "SF Mono", Menlo, "DejaVu Sans Mono", monospace',
      fontSize: matchMedia('(max-width: 600px)').matches ? 12 : 13,
      cursorBlink: interactive,
      disableStdin: !interactive,
      // A line-mode shell has no terminal to turn its line ends into CR LF.
      convertEol: !interactive,
      scrollback: 5000,
      theme: theme(),
      allowProposedApi: false,
      // A program's hyperlink (OSC 8) opens outside the app, never into it.
      linkHandler: { activate: (_event, uri) => openOutside(uri) },
    }));
    const fit = new FitAddon();
    term.loadAddon(fit);
    withAdoptedStyles(document, () => term.open(host.current!));
    if (!skipEmptySelectionRedraws(term)) console.warn('Brinmoor Web: this xterm.js draws every row twice while output scrolls');
    terminal.current = term;
    const refit = () => {
      try {
        fit.fit();
      } catch {
        // not laid out yet
      }
    };
    refit();
    const subscriptions = [
      term.onData((data) => send(data)),
      term.onResize(({ cols, rows }) => state.terminals.resize(session, cols, rows)),
      // A title set by a program is shown as text, never as markup.
      term.onTitleChange((text) => setTitle(text)),
    ];
    const disconnect = state.terminals.connect(session.sessionId, {
      output: (data, reset, rendered) => {
        if (reset) term.reset();
        testTap()?.(session.sessionId, data, reset);
        term.write(data, rendered);
      },
      completion: (answer) => setCompletion(answer),
    });
    const observer = new ResizeObserver(refit);
    observer.observe(host.current!);
    window.addEventListener('orientationchange', refit);
    if (interactive) term.focus();
    return () => {
      disconnect();
      observer.disconnect();
      window.removeEventListener('orientationchange', refit);
      subscriptions.forEach((s) => s.dispose());
      term.dispose();
      terminal.current = null;
    };
  }, [session.sessionId]);

  // Once the agent has the session, it learns the size the page shows.
  useEffect(() => {
    const term = terminal.current;
    if (running && term) state.terminals.resize(session, term.cols, term.rows);
  }, [running]);

  return (
    <div class={'terminal-view ' + session.mode}>
      <header class="terminal-head">
        <span class={'status-dot ' + (running ? 'online' : 'offline')} />
        <span class="terminal-title">{title || (interactive ? 'Terminal' : 'Line mode')}</span>
        {session.message && <span class="muted terminal-message">{session.message}</span>}
        {session.status === 'closed' && (
          <span class="muted">Closed{session.exitCode !== undefined ? ` · exit ${session.exitCode}` : ''}</span>
        )}
        <button class="secondary small" onClick={() => state.terminals.signal(session, 'interrupt')} disabled={!running}>
          Ctrl-C
        </button>
        <button class="secondary small" onClick={() => state.terminals.close(session)} disabled={!running}>
          Close
        </button>
      </header>
      <div class="terminal-host" ref={host} />
      {interactive ? (
        <div class="key-bar" role="toolbar" aria-label="Keys">
          {kKeys.map((key) => (
            <button
              key={key.name}
              class={key.ctrl && ctrl ? 'current' : ''}
              aria-pressed={key.ctrl ? ctrl : undefined}
              aria-label={key.name}
              onPointerDown={(event) => event.preventDefault()}
              onClick={() => {
                if (key.ctrl) {
                  ctrlRef.current = !ctrlRef.current;
                  setCtrl(ctrlRef.current);
                } else {
                  send(key.data!);
                }
                terminal.current?.focus();
              }}
            >
              {key.label}
            </button>
          ))}
        </div>
      ) : (
        <LineEditor
          state={state}
          session={session}
          completion={completion}
          onCompleted={() => setCompletion(null)}
          echo={(line) => terminal.current?.write(`\x1b[1;34m›\x1b[0m ${line.replace(/\x1b/g, '^[')}\r\n`)}
        />
      )}
    </div>
  );
}

// The line editor of a line-mode session: Enter sends the line, ↑/↓ walk the history,
// Tab asks the agent to complete the path under the cursor.
function LineEditor({
  state,
  session,
  completion,
  onCompleted,
  echo,
}: {
  state: State;
  session: TerminalSession;
  completion: Completion | null;
  onCompleted: () => void;
  echo: (line: string) => void;
}) {
  const [line, setLine] = useState('');
  const history = useRef<string[]>([]);
  const position = useRef(0);
  const input = useRef<HTMLInputElement>(null);

  useEffect(() => {
    if (!completion) return;
    const next = line.slice(0, completion.replacementStart) + completion.replacement + line.slice(completion.replacementEnd);
    setLine(next);
    if (completion.suggestions.length <= 1) onCompleted();
    const cursor = completion.replacementStart + completion.replacement.length;
    requestAnimationFrame(() => input.current?.setSelectionRange(cursor, cursor));
  }, [completion]);

  const submit = (event: Event) => {
    event.preventDefault();
    echo(line);
    state.terminals.input(session, line + '\n');
    if (line.trim() !== '' && history.current[history.current.length - 1] !== line) history.current.push(line);
    position.current = history.current.length;
    setLine('');
    onCompleted();
  };
  const onKeyDown = (event: KeyboardEvent) => {
    const element = event.currentTarget as HTMLInputElement;
    if (event.key === 'Tab') {
      event.preventDefault();
      state.terminals.complete(session, element.value, element.selectionStart ?? element.value.length);
    } else if (event.key === 'ArrowUp' || event.key === 'ArrowDown') {
      event.preventDefault();
      const step = event.key === 'ArrowUp' ? -1 : 1;
      position.current = Math.max(0, Math.min(history.current.length, position.current + step));
      setLine(history.current[position.current] ?? '');
    }
  };
  return (
    <form class="line-editor" onSubmit={submit}>
      {completion && completion.suggestions.length > 1 && (
        <div class="suggestions">
          {completion.suggestions.map((suggestion) => (
            <span class="chip mono" key={suggestion}>
              {suggestion}
            </span>
          ))}
        </div>
      )}
      <div class="line-row">
        <span class="prompt-sign mono">›</span>
        <input
          ref={input}
          name="line"
          aria-label="Command line"
          class="mono"
          autocapitalize="off"
          autocomplete="off"
          spellcheck={false}
          value={line}
          onInput={(event) => setLine(event.currentTarget.value)}
          onKeyDown={onKeyDown}
        />
        <button class="primary" type="submit">
          Run
        </button>
      </div>
    </form>
  );
}
