import { useLayoutEffect, useRef, useState } from 'preact/hooks';
import type { LogLines } from '../stores/log_lines';
import { LogFrame, kRowHeight } from './LogFrame';

const kOverscan = 20;

// A task's output, however long: only the lines in view are in the page, and the view
// follows new output while the user is at the bottom.
export function TaskLog({ log, version, ended = false }: { log: LogLines; version: number; ended?: boolean }) {
  const scroller = useRef<HTMLDivElement>(null);
  const pinned = useRef(true);
  const [view, setView] = useState({ top: 0, height: 600 });
  const marker = log.dropped > 0 ? 1 : 0;
  const rows = log.length + marker;
  useLayoutEffect(() => {
    const element = scroller.current!;
    if (pinned.current) element.scrollTop = element.scrollHeight;
    if (element.scrollTop !== view.top || element.clientHeight !== view.height) {
      setView({ top: element.scrollTop, height: element.clientHeight });
    }
  }, [version, rows]);
  const first = Math.max(0, Math.floor(view.top / kRowHeight) - kOverscan);
  const last = Math.min(rows, Math.ceil((view.top + view.height) / kRowHeight) + kOverscan);
  const lines: preact.JSX.Element[] = [];
  for (let row = first; row < last; row++) {
    if (row < marker) {
      lines.push(
        <div key="dropped" class="log-line dropped" style={{ top: 0 }}>
          {log.dropped.toLocaleString('en-US')} earlier lines dropped
        </div>,
      );
    } else {
      lines.push(
        <div key={row} class={log.isNotice(row - marker) ? 'log-line notice' : 'log-line'} style={{ top: row * kRowHeight }}>
          {log.at(row - marker)}
        </div>,
      );
    }
  }
  return (
    <LogFrame
      scroller={scroller}
      pinned={pinned}
      scrolled={setView}
      space={rows * kRowHeight}
      empty={rows === 0 ? (ended ? 'No output.' : 'No output yet.') : null}
    >
      {lines}
    </LogFrame>
  );
}
