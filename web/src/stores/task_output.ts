// The output of a task whose agent keeps it whole on the computer, as the page holds it:
// its lines are numbered from 1, the newest run of them that came one after another (the
// tail) is in memory, bounded, and any other line is read back from the agent in pages
// when someone looks at it. Nothing is ever missed: a line that does not follow the tail
// (the page was away, reloaded, or the relay restarted) starts a new tail, and what came
// before it is still on the computer.
import type { OutputLines, OutputQuery } from '../protocol/kept_output';

// Lines a page read from the agent holds, and how many such pages are kept.
export const kPageLines = 1000;
export const kPagesKept = 40;
// A page of a running task that came back short is asked for again after this long.
export const kShortRetryMs = 1000;

interface Page {
  from: number;
  lines: string[];
}

export class TaskOutput {
  private tail: string[] = [];
  private tailHead = 0; // index in `tail` of its first kept line
  private tailFirst = 0; // the number of that line; 0 while the tail is empty
  private knownTotal = 0;
  private totalKnown = false;
  // Past this line the agent kept nothing (its bound on what a task keeps was reached).
  private keptUpTo = Infinity;
  // Pages of a running task that lacked lines the page knew of, and when they came back.
  private readonly short = new Map<number, number>();
  // Pages read, oldest use first.
  private readonly pages = new Map<number, Page>();
  // Reads asked for and not yet answered, by the number of their first line (0: the newest).
  private readonly reading = new Set<number>();
  ended = false;
  // The agent keeps none of it (it keeps a bounded number of tasks): only the tail is shown.
  notKept = false;

  constructor(
    readonly capacity = 200_000,
    private readonly now: () => number = Date.now,
  ) {}

  // How many lines the task has, as far as the page knows.
  get total(): number {
    return this.knownTotal;
  }

  // Whether the page knows how many lines there are (a line came, or the agent said).
  get counted(): boolean {
    return this.totalKnown;
  }

  // The numbers of the first and the last line in memory (0 and -1 when none).
  get first(): number {
    return this.tailFirst;
  }

  get last(): number {
    return this.tailFirst + this.tailLength - 1;
  }

  get tailLength(): number {
    return this.tail.length - this.tailHead;
  }

  // The newest line taken from the live output, for pacing (0 when none).
  get taken(): number {
    return this.tailLength === 0 ? 0 : this.last;
  }

  // The agent said how many lines there are (its list of tasks, or an answer).
  count(total: number): void {
    this.totalKnown = true;
    this.knownTotal = Math.max(this.knownTotal, total);
  }

  // A numbered line of the live output; false when the page had it already.
  take(number: number, text: string): boolean {
    if (this.tailLength > 0 && number <= this.last && number >= this.tailFirst) return false;
    if (this.tailLength === 0 || number !== this.last + 1) {
      if (this.tailLength > 0 && number < this.tailFirst) return false;
      this.tail = [];
      this.tailHead = 0;
      this.tailFirst = number;
    }
    this.tail.push(text);
    this.count(number);
    if (this.tailLength > this.capacity) {
      this.tailHead++;
      this.tailFirst++;
      // Compact now and then, not per line, so taking stays cheap.
      if (this.tailHead >= this.capacity / 4) {
        this.tail = this.tail.slice(this.tailHead);
        this.tailHead = 0;
      }
    }
    return true;
  }

  // Line `number` if the page has it, in memory or in a page read.
  line(number: number): string | undefined {
    if (this.tailLength > 0 && number >= this.tailFirst && number <= this.last) return this.tail[this.tailHead + number - this.tailFirst];
    for (const page of this.pages.values()) {
      const index = number - page.from;
      if (index >= 0 && index < page.lines.length) return page.lines[index];
    }
    return undefined;
  }

  // The reads that would give the lines from `first` to `last` the page does not have and
  // is not reading already, newest first, marked as being read; no more than make
  // `atOnce` reads wait at a time. Before the page knows how many lines there are, the
  // newest page.
  wanted(first: number, last: number, atOnce = Infinity): OutputQuery[] {
    if (this.notKept) return [];
    if (!this.totalKnown && this.tailLength === 0) {
      if (this.reading.size > 0) return [];
      this.reading.add(0);
      return [{ count: kPageLines }];
    }
    const queries: OutputQuery[] = [];
    const top = Math.min(last, this.knownTotal, this.keptUpTo);
    for (let page = Math.floor((top - 1) / kPageLines); page >= 0 && (page + 1) * kPageLines >= first; page--) {
      if (this.reading.size >= atOnce) break;
      const from = page * kPageLines + 1;
      if (this.reading.has(from) || (this.short.get(from) ?? -Infinity) > this.now() - kShortRetryMs) continue;
      const to = Math.min(from + kPageLines - 1, top);
      let missing = false;
      for (let n = Math.max(from, first); n <= to && !missing; n++) missing = this.line(n) === undefined;
      if (!missing) continue;
      this.reading.add(from);
      queries.push({ from, count: kPageLines });
    }
    return queries;
  }

  // The answer to one of `wanted`'s reads.
  read(query: OutputQuery, answer: OutputLines): void {
    this.reading.delete(query.from ?? 0);
    // Lines the page knew to exist that the answer lacks are past what the agent keeps of
    // a task (it keeps the first lines of an output that passes its bound), or, while the
    // task runs, maybe not written yet.
    const known = Math.min((query.from ?? Infinity) + query.count - 1, Math.max(this.knownTotal, answer.total));
    this.count(answer.total);
    if (answer.ended) this.ended = true;
    if (answer.from === undefined) return;
    const end = answer.from + answer.lines.length - 1;
    if (query.from !== undefined && end < known) {
      if (answer.ended) this.keptUpTo = Math.min(this.keptUpTo, Math.max(end, query.from - 1));
      else this.short.set(query.from, this.now());
    }
    if (answer.lines.length === 0) return;
    this.pages.delete(answer.from);
    this.pages.set(answer.from, { from: answer.from, lines: answer.lines });
    while (this.pages.size > kPagesKept) this.pages.delete(this.pages.keys().next().value!);
  }

  // A read that got no answer (the connection went, the agent is away): it may be asked again.
  unread(query: OutputQuery): void {
    this.reading.delete(query.from ?? 0);
  }

  // The pages in use now are kept longest.
  touch(first: number, last: number): void {
    for (const page of [...this.pages.values()]) {
      if (page.from <= last && page.from + page.lines.length > first) {
        this.pages.delete(page.from);
        this.pages.set(page.from, page);
      }
    }
  }

  // How many pages are held, for tests of the bound.
  get pagesHeld(): number {
    return this.pages.size;
  }
}
