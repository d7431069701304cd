import { useState } from 'preact/hooks';
import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import type { Agent } from '../stores/agents_store';
import { projectName } from './names';

function agentStatus(agent: Agent): string {
  if (!agent.online) return 'offline';
  return agent.busy ? 'busy' : 'online';
}

// Every agent of the relay with its state, live, and its project folders.
export function AgentList({ state }: { state: AppState }) {
  useStores(state.agents, state.navigation, state.connection);
  const agents = state.agents.list();
  const place = state.navigation.place;
  return (
    <nav class="agent-list" aria-label="Agents and projects">
      <h2 class="section-title">Machines</h2>
      {agents.length === 0 && (
        <p class="muted empty-note">
          {state.connection.state === 'open' ? 'No agent is connected to this server.' : 'Waiting for the server…'}
        </p>
      )}
      {agents.map((agent) => (
        <section class="agent card" key={agent.agentId} data-agent={agent.agentId}>
          <header class="agent-head">
            <span class={'status-dot ' + agentStatus(agent)} />
            <span class="agent-name">{agent.agentId}</span>
            <span class={'pill ' + agentStatus(agent)}>{agentStatus(agent)}</span>
          </header>
          <ul class="projects">
            {state.agents.projects(agent.agentId).map((folder) => (
              <li key={folder}>
                <button
                  class={'project' + (place.agentId === agent.agentId && place.projectPath === folder ? ' current' : '')}
                  onClick={() =>
                    state.navigation.go({ agentId: agent.agentId, projectPath: folder, conversationId: null, taskId: null, session: null })
                  }
                >
                  <span class="project-name">{projectName(folder)}</span>
                  <span class="project-path">{folder}</span>
                </button>
                {state.agents.isRemembered(agent.agentId, folder) && (
                  <button
                    class="icon forget-folder"
                    aria-label={`Remove ${projectName(folder)}`}
                    title="Remove from this list"
                    onClick={() => {
                      if (place.agentId === agent.agentId && place.projectPath === folder) state.navigation.home();
                      state.agents.forgetFolder(agent.agentId, folder);
                    }}
                  >
                    ×
                  </button>
                )}
              </li>
            ))}
          </ul>
          <FolderForm state={state} agent={agent} />
        </section>
      ))}
    </nav>
  );
}

// A folder under the agent's repository root, for an agent that lists no project there.
function FolderForm({ state, agent }: { state: AppState; agent: Agent }) {
  const [folder, setFolder] = useState('');
  const root = agent.registration?.repoRoot;
  const submit = (event: Event) => {
    event.preventDefault();
    const remembered = state.agents.rememberFolder(agent.agentId, folder);
    if (remembered === '') return;
    setFolder('');
    state.navigation.go({ agentId: agent.agentId, projectPath: remembered, conversationId: null, taskId: null, session: null });
  };
  return (
    <form class="folder-form" onSubmit={submit}>
      <input
        name="folder"
        placeholder={root ? `Folder under ${root}` : 'Project folder'}
        autocapitalize="off"
        spellcheck={false}
        value={folder}
        onInput={(event) => setFolder(event.currentTarget.value)}
      />
      <button type="submit" disabled={folder.trim() === ''}>
        Open
      </button>
    </form>
  );
}
