// The files of a proposal's diff by the names an approval gives them ("files" of
// "task.approval"), as the agent reads them: a file's new path, or its old one when it
// is deleted.

// A "--- a/X" or "+++ b/X" name without its side (git ends a name with a blank with a tab).
function sideName(text: string): string {
  const name = text.endsWith('\t') ? text.slice(0, -1) : text;
  if (name === '/dev/null') return '';
  return name.startsWith('a/') || name.startsWith('b/') ? name.slice(2) : name;
}

function blockName(lines: string[]): string {
  let oldPath = '';
  let newPath = '';
  let added = false;
  let deleted = false;
  for (const line of lines) {
    if (line.startsWith('new file mode')) added = true;
    else if (line.startsWith('deleted file mode')) deleted = true;
    else if (line.startsWith('rename from ')) oldPath = line.slice(12);
    else if (line.startsWith('rename to ')) newPath = line.slice(10);
    else if (line.startsWith('--- ')) oldPath = sideName(line.slice(4));
    else if (line.startsWith('+++ ')) newPath = sideName(line.slice(4));
    else if (line.startsWith('Binary files ') && line.endsWith(' differ')) {
      const inner = line.slice('Binary files '.length, -' differ'.length);
      if (inner.startsWith('/dev/null and ')) newPath = sideName(inner.slice('/dev/null and '.length));
      else if (inner.endsWith(' and /dev/null')) oldPath = sideName(inner.slice(0, -' and /dev/null'.length));
      else if (oldPath === '' && newPath === '') {
        const half = Math.floor((inner.length - 5) / 2);
        oldPath = sideName(inner.slice(0, half));
        newPath = sideName(inner.slice(half + 5));
      }
    }
  }
  if (oldPath === '' && newPath === '') {
    // An empty file, or a change of mode alone: the header's name ("diff --git a/X b/X"),
    // its old side for a deletion (git names the other in full).
    const parts = lines[0].split(' ').filter((part) => part !== '');
    oldPath = newPath = parts.length >= 4 ? sideName(parts[deleted ? 2 : 3]) : '';
  }
  if (added) oldPath = '';
  if (deleted) newPath = '';
  return newPath === '' ? oldPath : newPath;
}

// The names of the files a diff changes, in its order, once each.
export function proposalFileNames(diff: string): string[] {
  const names: string[] = [];
  let block: string[] = [];
  const flush = () => {
    if (block.length > 0 && block[0].startsWith('diff --git ')) {
      const name = blockName(block);
      if (name !== '' && !names.includes(name)) names.push(name);
    }
    block = [];
  };
  for (const line of diff.split('\n')) {
    if (line.startsWith('diff --git ')) flush();
    block.push(line);
  }
  flush();
  return names;
}
