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
