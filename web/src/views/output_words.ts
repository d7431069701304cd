// The words of a task's whole output: its search, copying and saving it.

export const kSearchLabel = 'Search output';
export const kSearching = 'Searching…';
export const kNoMatches = 'No matches';
export const kMoreMatches = 'More matches';

const number = (n: number) => n.toLocaleString('en-US');
const lines = (n: number) => (n === 1 ? '1 line' : `${number(n)} lines`);

// A line found by a search, as a person looks for it in the log.
export function matchLine(line: number): string {
  return `Line ${line}`;
}

export function copying(read: number, total: number): string {
  return `Copying… ${number(read)} of ${lines(total)}`;
}

export function copied(count: number): string {
  return `Copied ${lines(count)}`;
}

export function downloading(read: number, total: number): string {
  return `Downloading… ${number(read)} of ${lines(total)}`;
}

export function downloaded(count: number): string {
  return `Downloaded ${lines(count)}`;
}

export function couldNot(what: 'copy' | 'download' | 'search', reason: string): string {
  return `Could not ${what}: ${reason}`;
}

export { kClipboardRefused } from '../lib/clipboard';

// Above the lines in memory of a task whose output the computer no longer keeps.
export function notKeptEarlier(count: number): string {
  return `${lines(count)} before these are no longer kept on the computer`;
}

// The name a task's output is saved under: its kind and its id.
export function outputFileName(task: { kind: string; taskId: string }): string {
  return `${task.kind}-${task.taskId}.log`.replace(/[^\w.-]/g, '_');
}
