import type { KeyValueStorage } from '../stores/observable';

export const kUnencryptedText = 'This connection is not encrypted';
export const kEncryptLinkText = 'How to encrypt it';
// The README's "Reach it from anywhere", which the relay serves beside the page.
export const kEncryptHelp = '/help/reach-it-from-anywhere.html';

const kDismissedKey = 'brinmoor.unencryptedNoticeDismissed';

// The notice a page over plain HTTP shows: the token and everything after it cross the
// network in clear. A page on this machine's own address is a secure context and needs
// none. Dismissing it is remembered in this origin's storage, so per server.
export class UnencryptedNotice {
  private dismissed: boolean;

  constructor(
    private readonly storage: KeyValueStorage,
    private readonly secureContext: boolean,
  ) {
    this.dismissed = storage.getItem(kDismissedKey) !== null;
  }

  get shown(): boolean {
    return !this.secureContext && !this.dismissed;
  }

  dismiss(): void {
    this.dismissed = true;
    this.storage.setItem(kDismissedKey, '1');
  }
}
