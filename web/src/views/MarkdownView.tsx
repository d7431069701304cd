import { useLayoutEffect, useRef } from 'preact/hooks';
import { highlightCode, markdownToHTML } from '../lib/markdown';
import { MarkdownBlocks } from '../lib/markdown_blocks';

// A tail this long is shown as text until it ends: rendering it as Markdown on every
// chunk would make each chunk cost as much as the tail.
const kLongTail = 16 * 1024;

interface Rendered {
  chunks: string[] | null;
  streaming: boolean;
  consumed: number;
  blocks: MarkdownBlocks;
  tail: HTMLElement | null;
}

// Markdown that may still be growing. Finished blocks are rendered once and stay; only
// the unfinished tail is rendered again when a chunk arrives.
export function MarkdownView({ chunks, streaming }: { chunks: string[]; streaming: boolean }) {
  const root = useRef<HTMLDivElement>(null);
  const rendered = useRef<Rendered>({ chunks: null, streaming: true, consumed: 0, blocks: new MarkdownBlocks(), tail: null });
  useLayoutEffect(() => {
    const element = root.current!;
    const r = rendered.current;
    if (r.chunks !== chunks) {
      element.textContent = '';
      Object.assign(r, { chunks, consumed: 0, blocks: new MarkdownBlocks(), tail: null });
    }
    if (!r.tail) {
      r.tail = document.createElement('div');
      r.tail.className = 'md-tail';
      element.append(r.tail);
    }
    const length = chunks.length;
    // Nothing new: a finished answer, or no chunk since the last render, costs nothing.
    if (r.consumed === length && r.streaming === streaming) return;
    r.streaming = streaming;
    const started = performance.now();
    const before = r.consumed;
    while (r.consumed < length) {
      for (const block of r.blocks.append(chunks[r.consumed++])) {
        const finished = document.createElement('div');
        finished.className = 'md-block';
        finished.innerHTML = markdownToHTML(block);
        element.insertBefore(finished, r.tail);
        highlightCode(finished);
      }
    }
    const tail = r.blocks.tail;
    if (streaming && tail.length > kLongTail) {
      r.tail.className = 'md-tail plain';
      r.tail.textContent = tail;
    } else {
      r.tail.className = 'md-tail';
      r.tail.innerHTML = markdownToHTML(tail);
      if (!streaming) highlightCode(r.tail);
    }
    // The benchmark asks for the cost of each render by setting this list, in its build.
    if (__BRINMOOR_TAPS__) {
      const timings = (window as { brinmoorMarkdownTimings?: { chunks: number; ms: number }[] }).brinmoorMarkdownTimings;
      timings?.push({ chunks: r.consumed - before, ms: performance.now() - started });
    }
  });
  return <div class="markdown" ref={root} />;
}
