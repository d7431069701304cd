// The projects under the repository root, for a relay's clients ("projects.list").
#include "agent/agent_runtime.h"
#include "config/project_finder.h"
#include "protocol/messages.h"

#include <QFutureWatcher>
#include <QtConcurrent/QtConcurrentRun>

namespace brinmoor {

void AgentRuntime::listProjects()
{
    // The walk reads folders: off the loop. Requests while it runs share its answer,
    // which goes to every client.
    if (m_listingProjects)
        return;
    m_listingProjects = true;
    const QString repoRoot = loadProfile().repoRoot;
    auto* watcher = new QFutureWatcher<QList<Messages::FoundProject>>(this);
    connect(watcher, &QFutureWatcher<QList<Messages::FoundProject>>::finished, this, [this, watcher] {
        m_listingProjects = false;
        // Said only to a server that asked for it; the connection may have changed since.
        if (m_features.projects)
            sendJSON(Messages::projectsListed(watcher->result()));
        watcher->deleteLater();
    });
    watcher->setFuture(QtConcurrent::run([repoRoot] { return ProjectFinder::find(repoRoot); }));
}

} // namespace brinmoor
