import type { Terminal } from '@xterm/xterm';
import { describe, expect, it } from 'vitest';
import { skipEmptySelectionRedraws } from '../src/lib/terminal_redraws';

// A terminal shaped like xterm.js 6's where it matters: its render service, recording
// every selection redraw that reaches the renderer.
function terminalWithRenderService() {
  const redraws: unknown[][] = [];
  const service = {
    rows: 3,
    handleSelectionChanged(this: { rows: number }, start: unknown, end: unknown, column: boolean) {
      redraws.push([start, end, column, this.rows]);
    },
  };
  return { term: { _core: { _renderService: service } } as unknown as Terminal, service, redraws };
}

describe('skipEmptySelectionRedraws', () => {
  it('skips the redraws that scrolling asks for while nothing is selected', () => {
    const { term, service, redraws } = terminalWithRenderService();
    expect(skipEmptySelectionRedraws(term)).toBe(true);
    service.handleSelectionChanged(undefined, undefined, false);
    service.handleSelectionChanged(undefined, undefined, false);
    expect(redraws).toEqual([]);
  });

  it('draws a selection, each change of it, and its clearing once', () => {
    const { term, service, redraws } = terminalWithRenderService();
    skipEmptySelectionRedraws(term);
    service.handleSelectionChanged([0, 1], [4, 1], false);
    service.handleSelectionChanged([0, 0], [4, 1], true);
    service.handleSelectionChanged(undefined, undefined, false);
    service.handleSelectionChanged(undefined, undefined, false);
    expect(redraws).toEqual([
      [[0, 1], [4, 1], false, 3],
      [[0, 0], [4, 1], true, 3],
      [undefined, undefined, false, 3],
    ]);
  });

  it('leaves a terminal without the render service as it is', () => {
    expect(skipEmptySelectionRedraws({} as Terminal)).toBe(false);
    expect(skipEmptySelectionRedraws({ _core: { _renderService: {} } } as unknown as Terminal)).toBe(false);
  });
});
