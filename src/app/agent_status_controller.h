#pragma once

#include "agent/agent_runtime.h"
#include "app/pairing.h"
#include "config/machine.h"
#include "server_host/local_server_runtime.h"

#include <QObject>

#include <functional>
#include <memory>
#include <optional>

namespace brinmoor {

class SettingsStore;

// What the status menu shows and does, without any widget: the agent runtime and the
// local server, their status texts, the menu titles, pairing, and the actions. The
// tray (or, without a desktop, the headless runner) presents it.
class AgentStatusController : public QObject {
    Q_OBJECT

public:
    AgentStatusController(SettingsStore& defaults, Environment env, Machine machine, QObject* parent = nullptr);
    ~AgentStatusController() override;

    // Seeds the settings, starts the local server on a free port, stores that port and
    // the server URL, and starts the agent connection.
    void startServerAndAgent();
    void startAgent() { startServerAndAgent(); }
    void stopAgent();
    void refreshConnection();
    // Stops the agent and the server (the caller ends the program).
    void quit();
    // A stop signal: logged, the agent and the server stopped, a running task's process
    // tree ended, then the event loop left.
    void shutdown(int signal);
    // Quits once the running task has ended as a cancellation where the server takes one
    // end per task (see AgentRuntime::shutDown), then stops the local server and runs
    // `then`.
    void quitAfterTask(std::function<void()> then);
    void willSleep();
    void didWake();
    // Flips "Open at Login". On failure the preference stays and the reason is returned
    // (the tray shows it under "Open at Login Failed").
    std::optional<QString> toggleLaunchAtLogin();
    bool launchAtLogin() const;

    QString runtimeStatusText() const { return m_runtimeStatusText; }
    QString serverStatusText() const { return m_serverStatusText; }
    QString statusTitle() const { return QStringLiteral("Server: ") + m_serverStatusText; }
    QString detailsTitle() const { return QStringLiteral("Agent: ") + m_runtimeStatusText; }
    // "LAN: <server URL> • <agent id>", or "LAN: Unavailable".
    QString networkTitle() const;

    // --- project folders (the open panels live in the tray) ---
    struct ProjectEntry {
        QString title; // the folder's name, or the whole path when it has none
        QString path;
    };
    QStringList configuredProjects() const;
    // "Projects: <count>" or "Projects: Not set"; the tooltip lists the paths.
    QString projectMenuTitle() const;
    QString projectMenuTooltip() const;
    bool canClearProjects() const { return !configuredProjects().isEmpty(); }
    QList<ProjectEntry> projectEntries() const;
    // "New Project Folder: <name>" or "New Project Folder: Not set".
    QString createProjectRootTitle() const;
    QString createProjectRootTooltip() const;
    bool canClearCreateProjectRoot() const;
    // The first configured project, where folder panels open.
    std::optional<QString> currentProjectURL() const;
    // Each change is stored and then announced to the server with a fresh registration.
    void addProjectFolders(const QStringList& chosen);
    void setCreateProjectRoot(const QString& folder);
    void clearProjectFolderOverride();
    void clearCreateProjectRoot();
    void removeProjectFolder(const QString& path);

    std::optional<PairingPayload> currentPairingPayload() const;
    QString pairingTooltip() const;
    // Brinmoor Web with the token: on the LAN address for a phone, on loopback for this
    // computer's own browser; at the public URL for both when there is one.
    QString webClientURL() const;
    QString loopbackWebClientURL() const;

    // Where the LAN address comes from (the system's interfaces unless a test says otherwise).
    std::function<std::optional<QString>()> lanAddress;

    AgentRuntime& runtime() { return *m_runtime; }
    LocalServerRuntime& serverRuntime() { return *m_serverRuntime; }

Q_SIGNALS:
    // The project folders or the new-project folder changed.
    void foldersChanged();
    // The server's port and URL were written again: the "LAN:" item and its tooltip change.
    void networkChanged();
    void serverStatusChanged(const QString& text);
    void runtimeStatusChanged(const QString& text);

private:
    void setServerStatus(const QString& text);
    void setRuntimeStatus(const QString& text);

    SettingsStore& m_defaults;
    Environment m_env;
    Machine m_machine;
    std::unique_ptr<AgentRuntime> m_runtime;
    std::unique_ptr<LocalServerRuntime> m_serverRuntime;
    QString m_runtimeStatusText = QStringLiteral("Starting");
    QString m_serverStatusText = QStringLiteral("Starting");
    bool m_quit = false;
};

} // namespace brinmoor
