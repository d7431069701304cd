// Writing text to the clipboard, over HTTPS and over plain HTTP alike.

// The browser gave no clipboard, or refused to write to it.
export const kClipboardRefused = 'the browser did not allow it';

// Text for the clipboard without the asynchronous clipboard, which pages over plain HTTP
// do not have.
function copyBySelection(text: string): boolean {
  const area = document.createElement('textarea');
  area.value = text;
  area.setAttribute('readonly', '');
  area.style.position = 'fixed';
  area.style.opacity = '0';
  document.body.append(area);
  area.select();
  try {
    return document.execCommand('copy');
  } finally {
    area.remove();
  }
}

export async function toClipboard(text: string): Promise<void> {
  try {
    if (navigator.clipboard) return await navigator.clipboard.writeText(text);
  } catch {
    // refused: the other way may still work
  }
  if (!copyBySelection(text)) throw new Error(kClipboardRefused);
}
