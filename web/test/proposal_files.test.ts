import { describe, expect, it } from 'vitest';
import { proposalFileNames } from '../src/protocol/proposal_files';
import { approveLabel } from '../src/views/FilesToApply';

// A diff as the agent makes it: a deleted file's header names the project's own path in
// full on its new side, and a path with a blank ends its ---/+++ names with a tab.
const kDiff = [
  'diff --git a/README b/home/me/App/README',
  'deleted file mode 100644',
  'index 1..0',
  '--- a/README',
  '+++ /dev/null',
  '@@ -1 +0,0 @@',
  '-hello',
  'diff --git a/src/main.c b/src/main.c',
  'index 1..2 100644',
  '--- a/src/main.c',
  '+++ b/src/main.c',
  '@@ -1 +1 @@',
  '-a',
  '+b',
  'diff --git a/my notes.txt b/my notes.txt',
  'new file mode 100644',
  '--- /dev/null',
  '+++ b/my notes.txt\t',
  '@@ -0,0 +1 @@',
  '+x',
  'diff --git a/old.txt b/new.txt',
  'similarity index 100%',
  'rename from old.txt',
  'rename to new.txt',
  'diff --git a/logo.png b/logo.png',
  'index 1..2 100644',
  'Binary files a/logo.png and b/logo.png differ',
  'diff --git a/icon.png b/icon.png',
  'new file mode 100644',
  'Binary files /dev/null and b/icon.png differ',
  'diff --git a/old.bin b/home/me/App/old.bin',
  'deleted file mode 100644',
  'Binary files a/old.bin and /dev/null differ',
  'diff --git a/empty b/home/me/App/empty',
  'deleted file mode 100644',
  'index e69de29..0000000',
  'diff --git a/run.sh b/run.sh',
  'old mode 100644',
  'new mode 100755',
].join('\n');

describe('proposalFileNames', () => {
  it('names each file as the agent does: its new path, its old one when deleted', () => {
    expect(proposalFileNames(kDiff)).toEqual([
      'README',
      'src/main.c',
      'my notes.txt',
      'new.txt',
      'logo.png',
      'icon.png',
      'old.bin',
      'empty',
      'run.sh',
    ]);
    expect(proposalFileNames('')).toEqual([]);
  });
});

describe('approveLabel', () => {
  it('says how many files are applied when not all of them', () => {
    expect(approveLabel(3, 3)).toBe('Approve');
    expect(approveLabel(2, 3)).toBe('Approve 2 of 3 files');
    expect(approveLabel(1, 2)).toBe('Approve 1 of 2 files');
  });
});
