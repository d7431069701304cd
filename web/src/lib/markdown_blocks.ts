// Splits a growing text into finished Markdown blocks and the unfinished tail, so that a
// streaming answer renders each block once: a block ends at a blank line outside a code
// fence. The cost of a chunk depends on the chunk and the tail, not on the answer so far.
export class MarkdownBlocks {
  private pending = ''; // text after the last finished block
  private scanned = 0; // how much of `pending` has been looked at for block ends
  private lineStart = 0; // where the line being scanned starts in `pending`
  private fence: string | null = null; // the open code fence's marker, if any

  // Adds a chunk; returns the blocks it finished, in order.
  append(chunk: string): string[] {
    this.pending += chunk;
    const finished: string[] = [];
    let blockStart = 0;
    for (let newline = this.pending.indexOf('\n', this.scanned); newline >= 0; newline = this.pending.indexOf('\n', this.scanned)) {
      const line = this.pending.slice(this.lineStart, newline);
      this.scanned = newline + 1;
      this.lineStart = newline + 1;
      const marker = /^ {0,3}(`{3,}|~{3,})/.exec(line)?.[1];
      if (marker && (this.fence === null || (marker[0] === this.fence[0] && marker.length >= this.fence.length))) {
        this.fence = this.fence === null ? marker : null;
        continue;
      }
      if (this.fence === null && line.trim() === '') {
        const block = this.pending.slice(blockStart, newline);
        if (block.trim() !== '') finished.push(block);
        blockStart = newline + 1;
      }
    }
    if (blockStart > 0) {
      this.pending = this.pending.slice(blockStart);
      this.scanned -= blockStart;
      this.lineStart -= blockStart;
    }
    return finished;
  }

  get tail(): string {
    return this.pending;
  }
}
