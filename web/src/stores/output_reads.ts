// Reading a task's output back from the computer: the pages of lines the log view shows
// and the page does not have, a search, and the whole output for copying or saving.
import { kReadLimit, type OutputLines, type OutputQuery } from '../protocol/kept_output';
import { RelayError } from '../protocol/relay_client';
import type { TaskOutput } from './task_output';

export type ReadOutput = (agentId: string, taskId: string, query: OutputQuery) => Promise<OutputLines>;

// The task whose output is read.
export interface OutputOwner {
  agentId: string;
  taskId: string;
  output?: TaskOutput;
}

export interface Match {
  number: number;
  text: string;
}

// Matches of a search, and where the next ones would be looked for (null: no more).
export interface Matches {
  matches: Match[];
  next: number | null;
}

// How many reads of one task's pages may wait for their answers at once.
const kReadsAtOnce = 3;
export const kMatchesAtOnce = 200;

export class OutputReads {
  constructor(
    private readonly read: ReadOutput,
    private readonly changed: () => void,
  ) {}

  // Reads the lines from `first` to `last` that the page lacks; the store changes as they come.
  show(task: OutputOwner, first: number, last: number): void {
    const output = task.output;
    if (!output) return;
    output.touch(first, last);
    for (const query of output.wanted(first, last, kReadsAtOnce)) {
      this.read(task.agentId, task.taskId, query).then(
        (answer) => {
          output.read(query, answer);
          this.changed();
        },
        (error: unknown) => {
          output.unread(query);
          if (error instanceof RelayError && error.code === 'OUTPUT_NOT_KEPT') {
            output.notKept = true;
            this.changed();
          }
          // Anything else (no connection, the agent away) is asked again at the next change.
        },
      );
    }
  }

  // The first lines from line `from` on that contain `text`, in any case.
  async search(task: OutputOwner, text: string, from = 1): Promise<Matches> {
    const answer = await this.read(task.agentId, task.taskId, { from, count: kMatchesAtOnce, match: text });
    const numbers = answer.numbers ?? answer.lines.map((_, i) => (answer.from ?? from) + i);
    const matches = answer.lines.map((line, i) => ({ number: numbers[i], text: line }));
    const next = matches.length < kMatchesAtOnce ? null : matches[matches.length - 1].number + 1;
    return { matches, next };
  }

  // Every line of the task's output kept so far, read in pages of the most a read may
  // ask for; `progress` is told how many lines were read of how many.
  async readAll(task: OutputOwner, progress: (read: number, total: number) => void = () => undefined): Promise<string[][]> {
    const pages: string[][] = [];
    let from = 1;
    for (;;) {
      const answer = await this.read(task.agentId, task.taskId, { from, count: kReadLimit });
      if (answer.lines.length > 0) pages.push(answer.lines);
      from += answer.lines.length;
      progress(from - 1, Math.max(answer.total, from - 1));
      if (answer.lines.length < kReadLimit || from > answer.total) return pages;
    }
  }
}
