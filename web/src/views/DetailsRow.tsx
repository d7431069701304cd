import { useState } from 'preact/hooks';
import type { LogLines } from '../stores/log_lines';

// The agent's bookkeeping and the raw output of an assistant's commands: folded away in one
// row, "Details", that shows them when opened. `version` changes when lines are added.
export function DetailsRow({ lines }: { lines: string[] | LogLines; version: number }) {
  const [open, setOpen] = useState(false);
  if (lines.length === 0) return null;
  const shown = !open ? [] : Array.isArray(lines) ? lines : lines.slice(0, lines.length);
  return (
    <details class="details-row" onToggle={(event) => setOpen(event.currentTarget.open)}>
      <summary>Details</summary>
      {open && (
        <ol>
          {shown.map((line, index) => (
            <li key={index}>{line}</li>
          ))}
        </ol>
      )}
    </details>
  );
}
