// Assistants answer in Markdown, and whatever they write is untrusted: it is turned into
// HTML by marked and then passes DOMPurify before it reaches the page. Code blocks are
// highlighted after they are in the page, by highlight.js loaded on first need.
import DOMPurify from 'dompurify';
import { Marked } from 'marked';

const marked = new Marked({ gfm: true, breaks: false, async: false });

// Links open in a new tab and do not tell the target where they came from.
DOMPurify.addHook('afterSanitizeAttributes', (node) => {
  if (node.tagName === 'A') {
    node.setAttribute('target', '_blank');
    node.setAttribute('rel', 'noopener noreferrer');
  }
});

export function sanitize(html: string): string {
  return DOMPurify.sanitize(html, {
    FORBID_TAGS: ['style', 'form', 'input', 'button', 'textarea', 'select'],
    FORBID_ATTR: ['style'],
  });
}

export function markdownToHTML(text: string): string {
  return sanitize(marked.parse(text) as string);
}

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

type HighlightJS = typeof import('highlight.js/lib/core').default;
let highlighter: Promise<HighlightJS> | null = null;

function loadHighlighter(): Promise<HighlightJS> {
  highlighter ??= import('./highlight').then((module) => module.default);
  return highlighter;
}

// Highlights the code blocks under `root` that are not highlighted yet.
export function highlightCode(root: HTMLElement): void {
  const blocks = root.querySelectorAll<HTMLElement>('pre code:not(.hljs)');
  if (blocks.length === 0) return;
  void loadHighlighter().then((hljs) => {
    for (const block of blocks) {
      if (!block.isConnected || block.classList.contains('hljs')) continue;
      const language = /language-([\w-]+)/.exec(block.className)?.[1];
      if (language && !hljs.getLanguage(language)) block.classList.remove('language-' + language);
      hljs.highlightElement(block);
    }
  });
}
