import { describe, expect, it } from 'vitest';
import { outsideLink } from '../src/lib/outside_links';

const kPage = 'http://192.168.1.20:8080/';

describe('outsideLink', () => {
  it('lets a link out of the app', () => {
    expect(outsideLink('https://example.com/docs?q=1#part', kPage)).toBe('https://example.com/docs?q=1#part');
    expect(outsideLink(' http://other.example:8080/ ', kPage)).toBe('http://other.example:8080/');
    expect(outsideLink('mailto:someone@example.com', kPage)).toBe('mailto:someone@example.com');
  });

  it('follows no link into the app, no pairing link, and nothing that runs', () => {
    for (const href of [
      '/#token=evil',
      '#token=evil',
      'notes.txt',
      '/v1/agents',
      'http://192.168.1.20:8080/#token=evil',
      'HTTP://192.168.1.20:8080/help/',
      '//192.168.1.20:8080/',
      'http://127.0.0.1:8080/#token=evil',
      'https://brinmoor.example/#view=chat&token=evil',
      'javascript:alert(1)',
      ' JaVaScRiPt:alert(1)',
      'data:text/html,<script>alert(1)</script>',
      'blob:http://192.168.1.20:8080/x',
      'file:///etc/passwd',
      'http://[',
    ]) {
      expect(outsideLink(href, kPage), href).toBeNull();
    }
  });
});
