// Assistants answer in Markdown, and whatever they write is untrusted: it is turned into
// HTML by marked and then passes the answers' sanitiser before it reaches the page. Code
// blocks are highlighted after they are in the page, by highlight.js loaded on first
// need; the classes it adds are the only ones an answer has.
import { Marked } from 'marked';
import { sanitizeAnswer } from './sanitize';

const marked = new Marked({ gfm: true, breaks: false, async: false });

// A task list's boxes are drawn as characters: an answer keeps no form element.
marked.use({
  renderer: {
    checkbox({ checked }) {
      return checked ? '☑ ' : '☐ ';
    },
  },
});

export function markdownToHTML(text: string): string {
  return sanitizeAnswer(marked.parse(text) as string);
}

type HighlightJS = typeof import('highlight.js/lib/core').default;
let highlighter: Promise<HighlightJS> | null = null;

function loadHighlighter(): Promise<HighlightJS> {
  highlighter ??= import('./highlight').then((module) => module.default);
  return highlighter;
}

// Highlights the code blocks under `root` that are not highlighted yet, in the language
// their block names when highlight.js knows it, otherwise in the one it guesses.
export function highlightCode(root: HTMLElement): void {
  const blocks = root.querySelectorAll<HTMLElement>('pre code:not(.hljs)');
  if (blocks.length === 0) return;
  void loadHighlighter().then((hljs) => {
    for (const block of blocks) {
      if (!block.isConnected || block.classList.contains('hljs')) continue;
      const language = block.dataset.language;
      if (language && hljs.getLanguage(language)) block.classList.add('language-' + language);
      hljs.highlightElement(block);
    }
  });
}
