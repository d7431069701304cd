import type { ActivityLine } from '../protocol/task_log';

const kActivityShown = 200;

// What an assistant did while it answered, one readable line each, folded away to the
// count and the newest line.
export function Activity({ lines }: { lines: ActivityLine[] }) {
  if (lines.length === 0) return null;
  const shown = lines.slice(-kActivityShown);
  const last = lines[lines.length - 1];
  return (
    <details class="activity">
      <summary>
        <span class="activity-count">{lines.length === 1 ? '1 step' : `${lines.length} steps`}</span>
        <span class={'activity-last ' + last.tone}>{last.text}</span>
      </summary>
      {lines.length > shown.length && <div class="note">{lines.length - shown.length} earlier steps not shown</div>}
      <ol>
        {shown.map((line, index) => (
          <li key={index} class={line.tone}>
            {line.text}
          </li>
        ))}
      </ol>
    </details>
  );
}
