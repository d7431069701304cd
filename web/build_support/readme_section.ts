// A section of the README as a page the relay serves beside Brinmoor Web. Links to other
// files of the repository or to other sections are left as their text (the relay does
// not serve them); headings get the ids GitHub gives them, so links within the section
// keep working.
import { Marked, type Tokens } from 'marked';

// The lines from "## TITLE" up to the next heading of the same level.
export function readmeSection(readme: string, title: string): string {
  const lines = readme.split('\n');
  const start = lines.indexOf('## ' + title);
  if (start < 0) throw new Error(`the README has no section "${title}"`);
  const end = lines.findIndex((line, index) => index > start && line.startsWith('## '));
  return lines.slice(start, end < 0 ? undefined : end).join('\n');
}

export function headingId(text: string): string {
  return text
    .toLowerCase()
    .replace(/[^\p{L}\p{N}\s_-]/gu, '')
    .trim()
    .replace(/\s/g, '-');
}

const kEscapes: Record<string, string> = { '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;' };

function escapeHTML(text: string): string {
  return text.replace(/[&<>"]/g, (c) => kEscapes[c]);
}

export function readmeSectionPage(readme: string, title: string): string {
  const section = readmeSection(readme, title);
  // Links into the rest of the README have nothing to point at in this page.
  const ids = new Set(
    section
      .split('\n')
      .filter((line) => /^#{1,6} /.test(line))
      .map((line) => headingId(line.replace(/^#+ /, ''))),
  );
  const works = (href: string) => /^https?:/.test(href) || (href.startsWith('#') && ids.has(href.slice(1)));
  const marked = new Marked({
    renderer: {
      heading({ tokens, depth, text }: Tokens.Heading) {
        return `<h${depth} id="${headingId(text)}">${this.parser.parseInline(tokens)}</h${depth}>\n`;
      },
      link({ href, tokens }: Tokens.Link) {
        const inner = this.parser.parseInline(tokens);
        return works(href) ? `<a href="${escapeHTML(href)}">${inner}</a>` : inner;
      },
    },
  });
  const body = marked.parse(section, { async: false });
  return `<!doctype html>
<html lang="en">
  <head>
    <meta charset="utf-8" />
    <meta name="viewport" content="width=device-width, initial-scale=1" />
    <meta name="color-scheme" content="light dark" />
    <link rel="icon" href="/favicon.svg" type="image/svg+xml" />
    <link rel="stylesheet" href="/help/help.css" />
    <title>${escapeHTML(title)} · Brinmoor</title>
  </head>
  <body>
    <main>
      <p><a href="/">Brinmoor Web</a></p>
${body}    </main>
  </body>
</html>
`;
}
