import { describe, expect, it } from 'vitest';
import { MarkdownBlocks } from '../src/lib/markdown_blocks';

describe('MarkdownBlocks', () => {
  it('ends a block at a blank line outside code fences, whatever the chunks', () => {
    const blocks = new MarkdownBlocks();
    const finished: string[] = [];
    for (const chunk of ['Para 1\n', '\nPara 2\n\nPara 3', '\n', 'Para 4\n\n```\ncode\n\nmore\n```\n\nEnd']) {
      finished.push(...blocks.append(chunk));
    }
    expect(finished).toEqual(['Para 1\n', 'Para 2\n', 'Para 3\nPara 4\n', '```\ncode\n\nmore\n```\n']);
    expect(blocks.tail).toBe('End');
  });

  it('keeps the tail short for a long answer of paragraphs', () => {
    const blocks = new MarkdownBlocks();
    let count = 0;
    for (let i = 0; i < 1000; i++) count += blocks.append(`Paragraph ${i} ${'word '.repeat(50)}\n\n`).length;
    expect(count).toBe(1000);
    expect(blocks.tail).toBe('');
  });
});
