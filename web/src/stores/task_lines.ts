// The lines of a task's log, where the agent's own words stand among the program's output:
// each goes to the task's output, its details or its activity.
import { CodexEventReader } from '../protocol/codex_events';
import { readAssistantLogLine, readCommandLogLine, type ActivityLine, type TaskLogLine } from '../protocol/task_log';
import { isAssistant } from './kept_outputs';
import type { LogLines } from './log_lines';
import type { TaskOutput } from './task_output';

// How many lines of an assistant's activity a task keeps.
const kActivityKept = 1000;

interface LoggedTask {
  taskId: string;
  kind: string;
  log: LogLines;
  output?: TaskOutput;
  details: LogLines;
  activity: ActivityLine[];
  answer: string;
  programStarted: boolean;
}

export class TaskLines {
  private readonly codex = new Map<string, CodexEventReader>();

  // `numbered`: a line of the program's own output, as an agent that keeps it numbers it.
  read(task: LoggedTask, line: string, numbered = false): void {
    let read: TaskLogLine[];
    if (isAssistant(task)) {
      // A plan by Codex prints its events as they are: they make its answer.
      let codex = this.codex.get(task.taskId);
      if (!codex && task.kind === 'ai_task' && line.startsWith('{"type":')) this.codex.set(task.taskId, (codex = new CodexEventReader()));
      read = codex?.read(line) ?? [readAssistantLogLine(line)];
      if (codex) task.answer = codex.answer;
    } else {
      read = [readCommandLogLine(line, task.programStarted)];
    }
    for (const entry of read) {
      // A numbered line is one the program printed, empty or not; without a number, an
      // empty line may be what is left of splitting a read at its last newline. Beside
      // numbered output, a line without a number is the agent's own.
      if (entry.kind === 'output' && numbered) task.log.push(entry.text);
      else if (entry.kind === 'output' && !task.output) task.log.output(entry.text);
      else if (entry.kind === 'output' || entry.kind === 'detail') task.details.push(entry.text);
      else if (task.activity.length < kActivityKept) task.activity.push({ text: entry.text, tone: entry.tone });
    }
  }
}
