// Untrusted HTML on its way into the page passes DOMPurify here, with a configuration for
// each kind of content. Each has an instance of its own, so that one's hooks never touch
// the other's.
import DOMPurify from 'dompurify';
import { outsideLink } from './outside_links';

// What an assistant's answer may keep: the markup Markdown makes and the plain text
// markup people write, without a class, id, style or form element, so that an answer can
// neither take on the look of the page's own parts nor draw outside its message; without
// iframes, SVG, MathML, media or anything that runs.
const kAnswerTags = [
  'a',
  'abbr',
  'b',
  'blockquote',
  'br',
  'code',
  'dd',
  'del',
  'details',
  'div',
  'dl',
  'dt',
  'em',
  'h1',
  'h2',
  'h3',
  'h4',
  'h5',
  'h6',
  'hr',
  'i',
  'img',
  'ins',
  'kbd',
  'li',
  'mark',
  'ol',
  'p',
  'pre',
  'q',
  's',
  'samp',
  'small',
  'span',
  'strong',
  'sub',
  'summary',
  'sup',
  'table',
  'tbody',
  'td',
  'tfoot',
  'th',
  'thead',
  'tr',
  'u',
  'ul',
  'var',
];
// "data-language" carries a code block's language to the highlighter (see below).
const kAnswerAttributes = ['align', 'alt', 'data-language', 'href', 'src', 'start', 'title'];

const answers = DOMPurify(window);

// Markdown names a code block's language in its class, which does not stay: the language
// moves to an attribute that does, and the highlighter reads it from there.
answers.addHook('beforeSanitizeAttributes', (node) => {
  if (node.tagName !== 'CODE') return;
  const language = /(?:^|\s)language-([\w-]+)(?:\s|$)/.exec(node.getAttribute('class') ?? '')?.[1];
  if (language) node.setAttribute('data-language', language);
});

// A link opens outside the app, in a new tab that does not tell where it came from; a
// link that would lead into the app, or run something, is text.
answers.addHook('afterSanitizeAttributes', (node) => {
  if (node.tagName !== 'A') return;
  const href = node.getAttribute('href');
  const target = href === null ? null : outsideLink(href, location.href);
  if (target === null) {
    node.removeAttribute('href');
    return;
  }
  node.setAttribute('href', target);
  node.setAttribute('target', '_blank');
  node.setAttribute('rel', 'noopener noreferrer');
});

export function sanitizeAnswer(html: string): string {
  return answers.sanitize(html, {
    ALLOWED_TAGS: kAnswerTags,
    ALLOWED_ATTR: kAnswerAttributes,
    ALLOW_DATA_ATTR: false,
    ALLOW_ARIA_ATTR: false,
  });
}

const diffs = DOMPurify(window);

// A diff as diff2html renders it: its markup and classes are diff2html's, the file names
// and lines in it are escaped by diff2html; this is the check behind that.
export function sanitizeDiff(html: string): string {
  return diffs.sanitize(html, {
    FORBID_TAGS: ['style', 'form', 'input', 'button', 'textarea', 'select'],
    FORBID_ATTR: ['style', 'id'],
  });
}
