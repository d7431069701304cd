// Where a link in untrusted content (an assistant's answer, a terminal's hyperlink) may
// take the user: out of the app, and nowhere else. A link to the page's own origin could
// open the app again with a "#token=" of someone else's choosing, and the relay may be
// reached by several names, so neither such a link nor a pairing link to any address is
// followed; nor is anything but http, https and mailto.
export function outsideLink(href: string, pageAddress: string): string | null {
  let url: URL;
  try {
    url = new URL(href.trim(), pageAddress);
  } catch {
    return null;
  }
  if (url.protocol === 'mailto:') return url.href;
  if (url.protocol !== 'http:' && url.protocol !== 'https:') return null;
  if (url.origin === new URL(pageAddress).origin) return null;
  if (new URLSearchParams(url.hash.replace(/^#/, '')).has('token')) return null;
  return url.href;
}

// Opens an outside link in a new tab that knows neither this page nor where it came from.
export function openOutside(href: string): void {
  const target = outsideLink(href, location.href);
  if (target !== null) window.open(target, '_blank', 'noopener,noreferrer');
}
