// What the agent writes into a task's log besides the program's own output, and how a
// person should see it. The agent's bookkeeping ("workspace.resolve …", "proposal.diff
// …", a retry note) and the raw output of an assistant's commands are details, kept for
// whoever opens them; what an assistant did ("[command] make test") or what went wrong
// ("[tool.error] Write: …") is a step of its activity, in plain words.

// One line of an assistant's activity as the page shows it: a step it took, something
// that went wrong, or a tool use someone allowed or denied.
export type ActivityTone = 'step' | 'problem' | 'allowed' | 'denied';

export interface ActivityLine {
  text: string;
  tone: ActivityTone;
}

export type TaskLogLine =
  | { kind: 'output'; text: string } // the program's own output
  | { kind: 'detail'; text: string } // the agent's bookkeeping
  | ({ kind: 'activity' } & ActivityLine);

// The line the agent starts every task with, before the task's program runs.
const kResolveLine = /^workspace\.resolve action=\S* /;
// What the agent says while it prepares, reviews and applies a proposal.
const kProposalLine = /^proposal\.(workspace|command|diff|empty_diff|ready|approval)[ =]/;

// The markers the agent puts before what it read from an assistant's event stream.
const kMarkers: Record<string, (rest: string) => TaskLogLine> = {
  command: (rest) => ({ kind: 'activity', tone: 'step', text: 'Ran ' + rest }),
  'command.output': (rest) => ({ kind: 'detail', text: rest }),
  'tool.error': (rest) => {
    const colon = rest.indexOf(': ');
    const text = colon > 0 ? `${rest.slice(0, colon)} failed: ${rest.slice(colon + 2)}` : 'A tool failed: ' + rest;
    return { kind: 'activity', tone: 'problem', text };
  },
  'claude.error': (rest) => ({ kind: 'activity', tone: 'problem', text: 'Claude reported an error: ' + rest }),
  'codex.error': (rest) => ({ kind: 'activity', tone: 'problem', text: 'Codex reported an error: ' + rest }),
  'codex.turn.failed': (rest) => ({ kind: 'activity', tone: 'problem', text: 'Codex stopped: ' + rest }),
  'stream.error': (rest) => ({ kind: 'activity', tone: 'problem', text: 'The answer broke off: ' + rest }),
};

// "[command] rest" or "[name.more] rest", the form of every marker the agent writes.
const kMarker = /^\[(command|[a-z]+(?:\.[a-z_]+)+)\] ?([\s\S]*)$/;

// A line of an assistant's task (a chat, a plan, a proposal), where the agent's markers
// and bookkeeping stand among the tool's output. A marker this page does not know is a
// detail: the agent's word, not the program's.
export function readAssistantLogLine(line: string): TaskLogLine {
  if (kResolveLine.test(line) || kProposalLine.test(line)) return { kind: 'detail', text: line };
  const marker = kMarker.exec(line);
  if (marker) return (kMarkers[marker[1]] ?? (() => ({ kind: 'detail', text: line })))(marker[2]);
  return { kind: 'output', text: line };
}

// A line of a shell command or a build: only the agent's first line, which comes before
// the program runs, is not the program's output.
export function readCommandLogLine(line: string, programStarted: boolean): TaskLogLine {
  return !programStarted && kResolveLine.test(line) ? { kind: 'detail', text: line } : { kind: 'output', text: line };
}
