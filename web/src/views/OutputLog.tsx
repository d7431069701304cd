import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks';
import type { TaskOutput } from '../stores/task_output';
import { LogFrame, kRowHeight } from './LogFrame';
import { notKeptEarlier } from './output_words';

const kOverscan = 20;
// The tallest scroll space the log makes; browsers lay out nothing much taller. A longer
// output is scrolled through proportionally, a pixel of it standing for several.
const kMaxSpace = 10_000_000;

// Where the log is asked to go: a line, and a stamp that makes the same line a new request.
export interface LogTarget {
  line: number;
  stamp: number;
}

interface Props {
  output: TaskOutput;
  version: number;
  ended: boolean;
  // Reads the lines from `first` to `last` the page does not have.
  show: (first: number, last: number) => void;
  target?: LogTarget | null;
}

// The rows of the output: every line of it, or, when the computer no longer keeps it, a
// note and the lines in memory.
function layout(output: TaskOutput) {
  if (!output.notKept) return { rows: output.total, firstLine: 1, note: 0 };
  const note = output.first > 1 ? 1 : 0;
  return { rows: output.tailLength + note, firstLine: output.first - note, note };
}

// A task's whole output, however long: only the lines in view are in the page; those the
// page does not have are read from the computer as they come into view (a placeholder row
// meanwhile), and the view follows new output while the user is at the bottom.
export function OutputLog({ output, version, ended, show, target }: Props) {
  const scroller = useRef<HTMLDivElement>(null);
  const pinned = useRef(true);
  // Where the log is scrolled to and how tall it is; null until measured, so that nothing
  // is read for a place the log never shows (a finished task opens at its end).
  const [measured, setView] = useState<{ top: number; height: number } | null>(null);
  const view = measured ?? { top: 0, height: 0 };
  const { rows, firstLine, note } = layout(output);
  const full = rows * kRowHeight;
  const space = Math.min(full, kMaxSpace);
  const scale = full > space && space > view.height ? (full - view.height) / (space - view.height) : 1;
  const virtualTop = view.top * scale;
  const first = Math.max(0, Math.floor(virtualTop / kRowHeight) - kOverscan);
  const last = Math.min(rows, Math.ceil((virtualTop + view.height) / kRowHeight) + kOverscan);

  useLayoutEffect(() => {
    const element = scroller.current!;
    if (pinned.current) element.scrollTop = element.scrollHeight;
    if (!measured || element.scrollTop !== view.top || element.clientHeight !== view.height) {
      setView({ top: element.scrollTop, height: element.clientHeight });
    }
  }, [version, rows]);

  useLayoutEffect(() => {
    if (!target) return;
    const element = scroller.current!;
    const row = target.line - firstLine;
    const wanted = (row * kRowHeight - (element.clientHeight - kRowHeight) / 2) / scale;
    pinned.current = false;
    element.scrollTop = Math.max(0, wanted);
    setView({ top: element.scrollTop, height: element.clientHeight });
  }, [target]);

  useEffect(() => {
    if (measured && last > first) show(firstLine + Math.max(first, note) - note, firstLine + last - 1);
  }, [version, first, last]);

  const lines: preact.JSX.Element[] = [];
  for (let row = first; row < last; row++) {
    const top = view.top + row * kRowHeight - virtualTop;
    if (row < note) {
      lines.push(
        <div key="not-kept" class="log-line dropped" style={{ top }}>
          {notKeptEarlier(output.first - 1)}
        </div>,
      );
      continue;
    }
    const number = firstLine + row;
    const text = output.line(number);
    const marked = target?.line === number ? ' marked' : '';
    lines.push(
      text === undefined ? (
        <div key={number} class={'log-line reading' + marked} style={{ top }} />
      ) : (
        <div key={number} class={'log-line' + marked} style={{ top }} data-line={number}>
          {text}
        </div>
      ),
    );
  }
  return (
    <LogFrame
      scroller={scroller}
      pinned={pinned}
      scrolled={setView}
      space={space}
      empty={rows === 0 ? (ended ? 'No output.' : 'No output yet.') : null}
    >
      {lines}
    </LogFrame>
  );
}
