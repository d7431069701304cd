// The numbered output of tasks whose agent keeps it on the computer: taken as it comes,
// paced while its task runs, and read back when the page does not have it.
import type { OutputLines, OutputQuery } from '../protocol/kept_output';
import { LogLines } from './log_lines';
import { OutputPacer, kRealTimers, type PaceTimers } from './output_pacer';
import { OutputReads } from './output_reads';
import { TaskOutput } from './task_output';

// What of a task its numbered output concerns.
export interface NumberedTask {
  agentId: string;
  taskId: string;
  kind: string;
  log: LogLines;
  details: LogLines;
  output?: TaskOutput;
}

export interface OutputSender {
  ackTaskOutput?(agentId: string, taskId: string, line: number): boolean;
  readTaskOutput?(agentId: string, taskId: string, query: OutputQuery): Promise<OutputLines>;
}

// New lines of a command are shown at most this often: a task printing thousands of lines
// a second costs the page a few renders a second, and the time between goes to taking
// its output.
export const kShowLinesMs = 100;

// An assistant's output is read for its activity and answer, not shown as lines.
export function isAssistant(task: { kind: string }): boolean {
  return task.kind === 'ai_task' || task.kind === 'chat';
}

export class KeptOutputs {
  private readonly pacer: OutputPacer;
  readonly reads: OutputReads;
  private showTimer: unknown = null;

  constructor(
    sender: OutputSender,
    private readonly changed: () => void,
    private readonly capacity?: number,
    private readonly timers: PaceTimers = kRealTimers,
  ) {
    this.pacer = new OutputPacer((agentId, taskId, line) => sender.ackTaskOutput?.(agentId, taskId, line) ?? false, timers);
    const unread = () => Promise.reject(new Error('this page cannot read output back'));
    this.reads = new OutputReads((agentId, taskId, query) => sender.readTaskOutput?.(agentId, taskId, query) ?? unread(), changed);
  }

  // A new connection to the relay.
  reconnected(): void {
    this.pacer.reconnected();
  }

  // This page started the task: it paces the task from the start.
  started(task: NumberedTask): void {
    this.pacer.started(task.agentId, task.taskId);
  }

  // Line `number` of a running task's program output: kept for a command (false when the
  // page had it; the store changes a moment later), and paced either way.
  take(task: NumberedTask, number: number, line: string, running: boolean): boolean {
    if (!isAssistant(task)) {
      if (!this.of(task).take(number, line)) return false;
      this.showTimer ??= this.timers.set(() => {
        this.showTimer = null;
        this.changed();
      }, kShowLinesMs);
    }
    if (running) this.pacer.took(task.agentId, task.taskId, number, line.length);
    return true;
  }

  // What the agent says of a task it keeps: how many lines, and whether it ended.
  kept(task: NumberedTask, lines: number, ended: boolean): void {
    if (!isAssistant(task)) {
      const output = this.of(task);
      output.count(lines);
      if (ended) output.ended = true;
    }
    if (ended) this.pacer.ended(task.taskId);
  }

  ended(task: NumberedTask): void {
    this.pacer.ended(task.taskId);
    if (task.output) task.output.ended = true;
  }

  // The numbered output of a command, from the first numbered line on. What the page had
  // taken as its output before (lines without a number) was the agent's own word.
  private of(task: NumberedTask): TaskOutput {
    if (task.output) return task.output;
    for (let i = 0; i < task.log.length; i++) if (!task.log.isNotice(i)) task.details.push(task.log.at(i));
    task.log = new LogLines(this.capacity);
    return (task.output = new TaskOutput(this.capacity));
  }
}
