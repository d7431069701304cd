import type { Terminal } from '@xterm/xterm';

type SelectionRedraw = (start: unknown, end: unknown, columnSelectMode: boolean) => void;

interface RenderServiceHook {
  handleSelectionChanged?: SelectionRedraw;
}

// xterm.js 6 asks its renderer to redraw the selection after every scroll, and the DOM
// renderer answers by drawing every row again (xtermjs/xterm.js#4633): while output
// scrolls, each frame draws the whole screen twice. With no selection before or after,
// that redraw changes nothing, so it is skipped; a selection, and clearing it, still go
// through. The hook is xterm.js's render service, which is not public: a release without
// it is left as it is. Returns whether the terminal was changed.
export function skipEmptySelectionRedraws(term: Terminal): boolean {
  const service = (term as unknown as { _core?: { _renderService?: RenderServiceHook } })._core?._renderService;
  const redraw = service?.handleSelectionChanged;
  if (!service || typeof redraw !== 'function') return false;
  let shown = false;
  service.handleSelectionChanged = (start, end, columnSelectMode) => {
    const selection = start !== undefined && start !== null && end !== undefined && end !== null;
    if (!selection && !shown) return;
    shown = selection;
    redraw.call(service, start, end, columnSelectMode);
  };
  return true;
}
