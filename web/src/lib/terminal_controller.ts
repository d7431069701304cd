import { FitAddon } from '@xterm/addon-fit';
import { Terminal, type IDisposable } from '@xterm/xterm';
import type { Completion, TerminalSession, TerminalsStore } from '../stores/terminals_store';
import { withAdoptedStyles } from './adopted_styles';
import { openOutside } from './outside_links';
import { skipEmptySelectionRedraws } from './terminal_redraws';

// A replay comes in pieces; this long after the last has been drawn, the terminal takes
// its view's width again.
const kReplayIdleMs = 150;

// The browser tests check every byte a terminal is given through this function, which
// only they define, in the build made for them.
type TerminalTap = (sessionId: string, data: string, reset: boolean) => void;

function theme() {
  const dark = matchMedia('(prefers-color-scheme: dark)').matches;
  return dark
    ? { background: '#101217', foreground: '#d8dde6', cursor: '#8ab4ff', selectionBackground: '#33415c' }
    : { background: '#fbfbfc', foreground: '#1d2330', cursor: '#3b5bdb', selectionBackground: '#c9d6ff' };
}

// What the mounted view hears of its terminal.
export interface TerminalListener {
  data?(data: string): void; // typed into the terminal
  title?(title: string): void;
  completion?(completion: Completion): void;
}

// One terminal session's xterm.js, made once and kept while the session is open. A view
// mounts it and unmounts it; between views (another tab, another project) it goes on
// taking the session's output, and pacing it, so a view that comes back finds it as it
// was, with nothing to replay: no blank screen, no line redrawn at another width.
export class TerminalController {
  readonly term: Terminal;
  title = '';
  listener: TerminalListener = {};
  private readonly fit = new FitAddon();
  // Where xterm.js draws; moved into each view that mounts the terminal.
  private readonly frame = document.createElement('div');
  private opened = false;
  private readonly subscriptions: IDisposable[];
  private readonly disconnect: () => void;
  // While a replay is drawn at the width its output was made for, the terminal is not the
  // size its view shows: nothing is said to the agent, and it is refitted once drawn.
  private atReplayWidth = false;
  private replayPieces = 0; // given to xterm.js and not parsed yet
  private backToSize: ReturnType<typeof setTimeout> | undefined;

  constructor(
    private readonly terminals: TerminalsStore,
    readonly session: TerminalSession,
  ) {
    const interactive = session.mode === 'interactive';
    this.frame.className = 'terminal-frame';
    this.term = withAdoptedStyles(
      document,
      () =>
        new Terminal({
          fontFamily: 'ui-monospace, "SF Mono", Menlo, "DejaVu Sans Mono", monospace',
          fontSize: matchMedia('(max-width: 600px)').matches ? 12 : 13,
          // A steady cursor: a blinking one asks for a frame on every key, and Chromium then
          // holds the page's tasks, the echo's socket message among them, until that frame is
          // drawn, so the echo came a frame late.
          cursorBlink: false,
          disableStdin: !interactive,
          // A line-mode shell has no terminal to turn its line ends into CR LF.
          convertEol: !interactive,
          scrollback: 5000,
          theme: theme(),
          allowProposedApi: false,
          // A program's hyperlink (OSC 8) opens outside the app, never into it.
          linkHandler: { activate: (_event, uri) => openOutside(uri) },
        }),
    );
    this.term.loadAddon(this.fit);
    this.subscriptions = [
      this.term.onData((data) => this.listener.data?.(data)),
      // Only the size the terminal has in its view is the agent's: not a replay's, nor
      // one it no longer has when xterm.js says so.
      this.term.onResize(({ cols, rows }) => {
        if (!this.atReplayWidth && cols === this.term.cols && rows === this.term.rows) terminals.resize(session, cols, rows);
      }),
      // A title set by a program is shown as text, never as markup.
      this.term.onTitleChange((text) => {
        this.title = text;
        this.listener.title?.(text);
      }),
    ];
    this.disconnect = terminals.connect(session.sessionId, {
      output: (data, reset, rendered, replayCols) => {
        if (reset) this.term.reset();
        // Live output is made for the view's width: what came before is drawn first.
        if (replayCols === undefined && this.atReplayWidth) this.term.write('', () => this.refit());
        else this.drawReplayAt(replayCols);
        if (__BRINMOOR_TAPS__) (globalThis as { brinmoorTerminalTap?: TerminalTap }).brinmoorTerminalTap?.(session.sessionId, data, reset);
        if (replayCols !== undefined) this.replayPieces++;
        this.term.write(data, () => {
          rendered();
          if (replayCols === undefined) return;
          this.replayPieces--;
          this.fitSoon();
        });
      },
      completion: (answer) => this.listener.completion?.(answer),
    });
  }

  // Shows the terminal in `host` until the returned function is called.
  mount(host: HTMLElement): () => void {
    host.append(this.frame);
    if (!this.opened) {
      this.opened = true;
      withAdoptedStyles(document, () => this.term.open(this.frame));
      if (!skipEmptySelectionRedraws(this.term)) console.warn('Brinmoor Web: this xterm.js draws every row twice while output scrolls');
    }
    const refit = () => this.fitSoon();
    refit();
    const observer = new ResizeObserver(refit);
    observer.observe(host);
    window.addEventListener('orientationchange', refit);
    return () => {
      observer.disconnect();
      window.removeEventListener('orientationchange', refit);
      this.frame.remove();
    };
  }

  // The agent learns the size the terminal has (once it has the session).
  sizeToAgent(): void {
    // At a replay's width, it is told once the terminal is fitted again.
    if (!this.atReplayWidth) this.terminals.resize(this.session, this.term.cols, this.term.rows);
  }

  focus(): void {
    this.term.focus();
  }

  dispose(): void {
    clearTimeout(this.backToSize);
    this.disconnect();
    this.subscriptions.forEach((s) => s.dispose());
    this.term.dispose();
    this.frame.remove();
  }

  private refit(): void {
    clearTimeout(this.backToSize);
    this.atReplayWidth = false;
    if (!this.frame.isConnected) return;
    try {
      this.fit.fit();
    } catch {
      // not laid out yet
    }
  }

  // A replay made at another width (after a reload) is drawn at that width, then brought
  // to the view's: xterm.js rewraps its lines, where drawing it narrower or wider would
  // break every line a program laid out for its width.
  private drawReplayAt(cols: number | undefined): void {
    if (cols === undefined || cols === this.term.cols || this.atReplayWidth) return;
    this.atReplayWidth = true;
    this.term.resize(cols, this.term.rows);
  }

  // Fits the terminal to its view: at once, or, while a replay is drawn at its own width,
  // once all of it has been parsed and no more has come for a moment.
  private fitSoon(): void {
    clearTimeout(this.backToSize);
    if (!this.atReplayWidth) return this.refit();
    if (this.replayPieces === 0) this.backToSize = setTimeout(() => this.replayPieces === 0 && this.refit(), kReplayIdleMs);
  }
}

const controllers = new Map<string, TerminalController>();

// The controller of an open session, made the first time a view shows it. Those of
// sessions that close, or that the page forgets, go.
export function terminalController(terminals: TerminalsStore, session: TerminalSession): TerminalController {
  let controller = controllers.get(session.sessionId);
  if (!controller) {
    if (controllers.size === 0) {
      const stop = terminals.subscribe(() => {
        for (const [sessionId, kept] of controllers) {
          if (terminals.get(sessionId)?.status === 'closed' || !terminals.get(sessionId)) {
            controllers.delete(sessionId);
            kept.dispose();
          }
        }
        if (controllers.size === 0) stop();
      });
    }
    controller = new TerminalController(terminals, session);
    controllers.set(session.sessionId, controller);
  }
  return controller;
}
