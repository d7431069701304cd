import type { FoundProject, Registration, ServerMessage } from '../protocol/messages';
import { Observable, readJSON, type KeyValueStorage } from './observable';

export interface Agent {
  agentId: string;
  online: boolean;
  busy: boolean;
  registration: Registration | null;
}

const kFoldersKey = 'brinmoor.folders';

// Every agent of the relay, online or not, with its project folders: those its
// registration lists, those the user typed in this browser (an agent that finds no
// project folder still resolves a folder under its repository root), and those the agent
// found under its repository root.
export class AgentsStore extends Observable {
  private readonly agents = new Map<string, Agent>();
  private readonly found = new Map<string, FoundProject[]>();
  private folders: Record<string, string[]>;

  constructor(private readonly storage: KeyValueStorage) {
    super();
    this.folders = readJSON(storage, kFoldersKey, {});
  }

  list(): Agent[] {
    return [...this.agents.values()].sort((a, b) => a.agentId.localeCompare(b.agentId));
  }

  get(agentId: string): Agent | undefined {
    return this.agents.get(agentId);
  }

  // The registration's folders, then the ones remembered here, then the ones found under
  // the repository root, each folder once (whether named as a path under the repository
  // root or in full).
  projects(agentId: string): string[] {
    const listed = this.agents.get(agentId)?.registration?.projects ?? [];
    const seen = new Set(listed.map((folder) => this.folderKey(agentId, folder)));
    const unseen = (folder: string) => {
      const key = this.folderKey(agentId, folder);
      if (seen.has(key)) return false;
      seen.add(key);
      return true;
    };
    const typed = (this.folders[agentId] ?? []).filter(unseen);
    const found = (this.found.get(agentId) ?? []).map((project) => project.path).filter(unseen);
    return [...listed, ...typed, ...found];
  }

  // Whether a folder of the list was remembered here (and so can be forgotten).
  isRemembered(agentId: string, folder: string): boolean {
    const listed = this.agents.get(agentId)?.registration?.projects ?? [];
    return (this.folders[agentId] ?? []).includes(folder) && !listed.includes(folder);
  }

  rememberFolder(agentId: string, folder: string): string {
    const trimmed = folder.trim();
    if (trimmed === '') return trimmed;
    const key = this.folderKey(agentId, trimmed);
    const already = this.projects(agentId).find((known) => this.folderKey(agentId, known) === key);
    if (already !== undefined) return already;
    const known = this.folders[agentId] ?? [];
    this.folders = { ...this.folders, [agentId]: [...known, trimmed] };
    this.storage.setItem(kFoldersKey, JSON.stringify(this.folders));
    this.changed();
    return trimmed;
  }

  // A folder as one path: under the agent's repository root when not absolute, without
  // "." steps, doubled or trailing slashes.
  private folderKey(agentId: string, folder: string): string {
    const root = this.agents.get(agentId)?.registration?.repoRoot ?? '';
    const path = folder.startsWith('/') || folder.startsWith('~') ? folder : `${root}/${folder}`;
    return path
      .split('/')
      .filter((part, index) => part !== '.' && (part !== '' || index === 0))
      .join('/');
  }

  forgetFolder(agentId: string, folder: string): void {
    const known = this.folders[agentId] ?? [];
    if (!known.includes(folder)) return;
    this.folders = { ...this.folders, [agentId]: known.filter((item) => item !== folder) };
    this.storage.setItem(kFoldersKey, JSON.stringify(this.folders));
    this.changed();
  }

  handle(message: ServerMessage): void {
    switch (message.type) {
      case 'server.hello': {
        // The hello lists the agents connected now and those gone whose messages the relay
        // still keeps; the others this page knew are offline.
        for (const agent of this.agents.values()) agent.online = false;
        for (const { agentId, busy, registration, online } of message.agents) {
          this.agents.set(agentId, { agentId, busy, registration, online });
        }
        break;
      }
      case 'agent.online':
        this.upsert(message.agentId, { online: true, busy: false });
        break;
      case 'agent.offline':
        this.upsert(message.agentId, { online: false, busy: false });
        break;
      case 'projects.listed':
        this.found.set(message.agentId, message.projects);
        break;
      case 'agent.register': {
        const { type: _type, agentId, seq: _seq, ...registration } = message;
        this.upsert(agentId, { online: true, registration });
        break;
      }
      case 'task.started':
        this.upsert(message.agentId, { busy: true });
        break;
      case 'task.finished':
      case 'task.cancelled':
        this.upsert(message.agentId, { busy: false });
        break;
      case 'task.failed':
        // A refusal because the agent is busy leaves it busy with its own task.
        if (message.errorCode !== 'AGENT_BUSY') this.upsert(message.agentId, { busy: false });
        break;
      default:
        return;
    }
    this.changed();
  }

  private upsert(agentId: string, change: Partial<Agent>): void {
    const agent = this.agents.get(agentId) ?? { agentId, online: true, busy: false, registration: null };
    this.agents.set(agentId, { ...agent, ...change });
  }
}
