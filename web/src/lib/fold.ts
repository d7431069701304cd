// A value the user decides on can be long, and what is below the fold of a sheet is easily
// taken for not there. A long value is shown folded, to its first kFoldLines lines and at
// most kFoldCharacters characters of them, and the button that unfolds it says how long
// the whole is.
export const kFoldLines = 12;
export const kFoldCharacters = 600;

export interface Folded {
  head: string; // what is shown while folded
  lines: number;
  characters: number; // Unicode characters, not UTF-16 code units
}

function lineCount(text: string): number {
  let lines = 1;
  for (let at = text.indexOf('\n'); at >= 0; at = text.indexOf('\n', at + 1)) lines++;
  // A line break at the end ends the last line; it starts none.
  return text.endsWith('\n') ? lines - 1 : lines;
}

function characterCount(text: string): number {
  return text.length - (text.match(/[\uD800-\uDBFF][\uDC00-\uDFFF]/g)?.length ?? 0);
}

// Where the first `count` characters of `text` end, in code units.
function characterEnd(text: string, count: number): number {
  let end = 0;
  for (let n = 0; n < count && end < text.length; n++) end += text.codePointAt(end)! > 0xffff ? 2 : 1;
  return end;
}

// The folded form of `text`, or null when it is short enough to be shown whole.
export function fold(text: string): Folded | null {
  const lines = lineCount(text);
  const characters = characterCount(text);
  if (lines <= kFoldLines && characters <= kFoldCharacters) return null;
  let end = 0;
  for (let line = 0; line < kFoldLines; line++) {
    const at = text.indexOf('\n', end);
    if (at < 0) {
      end = text.length;
      break;
    }
    end = at + 1;
  }
  const head = text.slice(0, end).replace(/\n$/, '');
  return { head: head.slice(0, characterEnd(head, kFoldCharacters)), lines, characters };
}

export function showAllLabel({ lines, characters }: Folded): string {
  return `Show all (${lines === 1 ? '1 line' : `${lines.toLocaleString('en-US')} lines`}, ${characters.toLocaleString('en-US')} characters)`;
}
