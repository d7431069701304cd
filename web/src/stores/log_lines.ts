// The lines of one task's output. A task can print millions of lines; the page keeps the
// newest `capacity` of them and counts the ones it dropped, so memory stays bounded and
// the log view can say "N earlier lines dropped".
//
// The agent sends what it reads split at every newline, so a read that ends in one gives
// a last, empty line: a program that prints a line at a time would show every line
// followed by a blank one. An empty line right after a line of output is therefore held
// back, and shown only when another empty line follows it (a blank line the program
// printed); a single blank line between two lines of one read is not shown.
export class LogLines {
  private lines: string[] = [];
  private start = 0; // index in `lines` of the oldest kept line
  private droppedCount = 0;
  private readonly notices = new Set<number>(); // lines the page wrote, counted from the first ever

  constructor(readonly capacity = 200_000) {}

  get length(): number {
    return this.lines.length - this.start;
  }

  get dropped(): number {
    return this.droppedCount;
  }

  at(index: number): string {
    return this.lines[this.start + index];
  }

  // The kept lines from `from` (inclusive) to `to` (exclusive).
  slice(from: number, to: number): string[] {
    return this.lines.slice(this.start + from, this.start + to);
  }

  // Whether the line at `index` is the page's own word (a notice), not the task's output.
  isNotice(index: number): boolean {
    return this.notices.has(this.droppedCount + index);
  }

  private heldBlank = false;

  // A line of the task's output, as the agent sent it.
  output(line: string): void {
    const last = this.length - 1;
    if (line === '' && !this.heldBlank && last >= 0 && this.at(last) !== '' && !this.isNotice(last)) {
      this.heldBlank = true;
      return;
    }
    if (line === '' && this.heldBlank) this.push('');
    this.heldBlank = false;
    this.push(line);
  }

  notice(text: string): void {
    this.heldBlank = false;
    this.notices.add(this.droppedCount + this.length);
    this.push(text);
  }

  push(line: string): void {
    this.lines.push(line);
    if (this.length > this.capacity) {
      this.start++;
      this.droppedCount++;
      // Compact now and then, not per line, so pushing stays cheap.
      if (this.start >= this.capacity / 4) {
        this.lines = this.lines.slice(this.start);
        this.start = 0;
      }
    }
  }

  text(): string {
    return this.slice(0, this.length).join('\n');
  }
}
