import { Observable, type KeyValueStorage } from './observable';

const kTokenKey = 'brinmoor.token';

// The token of the relay that served this page. It arrives in the address's fragment
// ("#token=…", which the browser never sends to the server), is kept in localStorage and
// taken out of the address bar at once, so it is neither bookmarked nor shared. Only the
// address the page was opened with gives a token: a fragment that comes later, from a
// link followed within the page or anything else that changes the address, could carry
// a token of someone else's choosing, and loses its token without it being used.
export class Credentials extends Observable {
  private value: string | null;
  private opened = false;

  constructor(private readonly storage: KeyValueStorage) {
    super();
    this.value = storage.getItem(kTokenKey);
  }

  get token(): string | null {
    return this.value;
  }

  // Takes a token out of a fragment such as "#token=abc"; returns the fragment without it
  // (what the address bar should show), or null when there was no token. The token is
  // kept only when this is the fragment the page was opened with: the first one asked.
  adoptOpeningFragment(fragment: string): string | null {
    const opening = !this.opened;
    this.opened = true;
    const params = new URLSearchParams(fragment.replace(/^#/, ''));
    const token = params.get('token');
    if (token === null) return null;
    params.delete('token');
    if (opening && token.trim() !== '') this.set(token);
    const rest = params.toString();
    return rest === '' ? '' : '#' + rest;
  }

  set(token: string): void {
    this.value = token.trim();
    this.storage.setItem(kTokenKey, this.value);
    this.changed();
  }

  forget(): void {
    this.value = null;
    this.storage.removeItem(kTokenKey);
    this.changed();
  }
}
