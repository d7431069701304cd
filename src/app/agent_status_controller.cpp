#include "app/agent_status_controller.h"

#include "app/launch_at_login.h"
#include "base/diag.h"
#include "config/agent_projects_store.h"
#include "config/local_server_settings.h"
#include "config/runtime_defaults.h"
#include "config/settings_store.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>

namespace brinmoor {

AgentStatusController::AgentStatusController(SettingsStore& defaults, Environment env, Machine machine, QObject* parent)
    : QObject(parent), m_defaults(defaults), m_env(std::move(env)), m_machine(std::move(machine)),
      m_runtime(std::make_unique<AgentRuntime>(defaults, m_env, m_machine)),
      m_serverRuntime(std::make_unique<LocalServerRuntime>())
{
    lanAddress = [] { return Pairing::currentLANIPv4Address(Pairing::systemInterfaceAddresses()); };
    RuntimeDefaults::ensure(m_defaults, m_env, m_machine);
    // Status texts may come from any thread: they are handed to this object's thread.
    QPointer<AgentStatusController> self(this);
    m_runtime->onStatus = [self](const QString& text) {
        if (self)
            QMetaObject::invokeMethod(
                self.data(),
                [self, text] {
                    if (self)
                        self->setRuntimeStatus(text);
                },
                Qt::AutoConnection);
    };
}

AgentStatusController::~AgentStatusController()
{
    if (!m_quit)
        quit();
}

void AgentStatusController::setServerStatus(const QString& text)
{
    m_serverStatusText = text;
    Q_EMIT serverStatusChanged(text);
}

void AgentStatusController::setRuntimeStatus(const QString& text)
{
    m_runtimeStatusText = text;
    Q_EMIT runtimeStatusChanged(text);
}

void AgentStatusController::startServerAndAgent()
{
    RuntimeDefaults::ensure(m_defaults, m_env, m_machine);
    m_runtime->stop();
    const QString token = m_defaults.string(QStringLiteral("token")).value_or(QString());
    const int port = int(m_defaults.integer(QStringLiteral("serverPort")).value_or(0));
    const LocalServerSettings server = LocalServerSettings::load(m_defaults, m_env);
    QPointer<AgentStatusController> self(this);
    const int actualPort = m_serverRuntime->start(
        port, token,
        [self](const QString& text) {
            if (self)
                QMetaObject::invokeMethod(
                    self.data(),
                    [self, text] {
                        if (self)
                            self->setServerStatus(text);
                    },
                    Qt::AutoConnection);
        },
        server);
    // The agent always connects to the server that was just started, over loopback; with
    // TLS it takes the certificate the server was given, which names the phones' address.
    m_defaults.setValue(QStringLiteral("serverPort"), actualPort);
    m_defaults.setValue(QStringLiteral("serverURL"),
                        QString(server.scheme() + QStringLiteral("://127.0.0.1:%1").arg(actualPort)));
    m_defaults.sync();
    m_runtime->pinServerCertificate(server.tls() ? std::optional<QString>(server.tlsCertificate) : std::nullopt);
    Q_EMIT networkChanged();
    m_runtime->start();
}

void AgentStatusController::stopAgent()
{
    m_runtime->stop();
    m_serverRuntime->stop();
    setServerStatus(QStringLiteral("Stopped"));
    setRuntimeStatus(QStringLiteral("Stopped"));
}

void AgentStatusController::refreshConnection()
{
    setServerStatus(QStringLiteral("Refreshing"));
    setRuntimeStatus(QStringLiteral("Refreshing"));
    startServerAndAgent();
}

void AgentStatusController::quit()
{
    m_quit = true;
    m_runtime->stop();
    m_serverRuntime->stop();
}

void AgentStatusController::quitAfterTask(std::function<void()> then)
{
    // The local server goes last: the running task's end goes through it.
    m_runtime->shutDown([this, then = std::move(then)] {
        m_quit = true;
        m_serverRuntime->stop();
        then();
    });
}

void AgentStatusController::shutdown(int signal)
{
    diag(QStringLiteral("shutdown signal=") + QString::number(signal));
    quitAfterTask([] { QCoreApplication::quit(); });
}

void AgentStatusController::willSleep()
{
    // Nothing stops on sleep; only the text says so.
    setRuntimeStatus(QStringLiteral("Sleeping"));
}

void AgentStatusController::didWake()
{
    setRuntimeStatus(QStringLiteral("Waking"));
    setServerStatus(QStringLiteral("Reconnecting"));
    // The LAN address and the network may have changed.
    startServerAndAgent();
}

namespace {

QString folderName(const QString& path)
{
    const QString name = path.section(QLatin1Char('/'), -1, -1, QString::SectionSkipEmpty);
    return name.isEmpty() ? path : name;
}

} // namespace

QStringList AgentStatusController::configuredProjects() const
{
    return AgentProjectsStore::loadConfigured(m_defaults, m_env);
}

QString AgentStatusController::projectMenuTitle() const
{
    const QStringList projects = configuredProjects();
    return projects.isEmpty() ? QStringLiteral("Projects: Not set")
                              : QStringLiteral("Projects: ") + QString::number(projects.size());
}

QString AgentStatusController::projectMenuTooltip() const
{
    return configuredProjects().join(QLatin1Char('\n'));
}

QList<AgentStatusController::ProjectEntry> AgentStatusController::projectEntries() const
{
    QList<ProjectEntry> entries;
    for (const QString& path : configuredProjects())
        entries.append({folderName(path), path});
    return entries;
}

QString AgentStatusController::createProjectRootTitle() const
{
    const std::optional<QString> root = CreateProjectRootStore::load(m_defaults, m_env);
    return QStringLiteral("New Project Folder: ") + (root ? folderName(*root) : QStringLiteral("Not set"));
}

QString AgentStatusController::createProjectRootTooltip() const
{
    return CreateProjectRootStore::load(m_defaults, m_env).value_or(QString());
}

bool AgentStatusController::canClearCreateProjectRoot() const
{
    return CreateProjectRootStore::load(m_defaults, m_env).has_value();
}

std::optional<QString> AgentStatusController::currentProjectURL() const
{
    const QStringList projects = configuredProjects();
    if (projects.isEmpty())
        return std::nullopt;
    return projects.first();
}

void AgentStatusController::addProjectFolders(const QStringList& chosen)
{
    AgentProjectsStore::save(configuredProjects() + chosen, m_defaults);
    Q_EMIT foldersChanged();
    m_runtime->reloadConfiguration();
}

void AgentStatusController::setCreateProjectRoot(const QString& folder)
{
    CreateProjectRootStore::save(folder, m_defaults);
    Q_EMIT foldersChanged();
    m_runtime->reloadConfiguration();
}

void AgentStatusController::clearProjectFolderOverride()
{
    AgentProjectsStore::save({}, m_defaults);
    Q_EMIT foldersChanged();
    m_runtime->reloadConfiguration();
}

void AgentStatusController::clearCreateProjectRoot()
{
    CreateProjectRootStore::save(std::nullopt, m_defaults);
    Q_EMIT foldersChanged();
    m_runtime->reloadConfiguration();
}

void AgentStatusController::removeProjectFolder(const QString& path)
{
    QStringList projects = configuredProjects();
    projects.removeAll(path);
    AgentProjectsStore::save(projects, m_defaults);
    Q_EMIT foldersChanged();
    m_runtime->reloadConfiguration();
}

bool AgentStatusController::launchAtLogin() const
{
    return m_defaults.boolean(QStringLiteral("launchAtLogin"));
}

std::optional<QString> AgentStatusController::toggleLaunchAtLogin()
{
    // The stored preference, not the system's state, is what the check mark shows.
    const bool enabled = launchAtLogin();
    QString error;
    if (!LaunchAtLogin::setEnabled(!enabled, m_env, m_machine, &error))
        return error;
    m_defaults.setValue(QStringLiteral("launchAtLogin"), !enabled);
    m_defaults.sync();
    return std::nullopt;
}

std::optional<PairingPayload> AgentStatusController::currentPairingPayload() const
{
    return Pairing::currentPairingPayload(m_defaults, m_machine.hostName, lanAddress(),
                                          LocalServerSettings::load(m_defaults, m_env));
}

QString AgentStatusController::pairingTooltip() const
{
    return Pairing::pairingTooltip(m_defaults, m_machine.hostName, lanAddress(),
                                   LocalServerSettings::load(m_defaults, m_env));
}

QString AgentStatusController::webClientURL() const
{
    return Pairing::webClientURL(m_defaults, lanAddress(), LocalServerSettings::load(m_defaults, m_env));
}

QString AgentStatusController::loopbackWebClientURL() const
{
    return Pairing::webClientURL(m_defaults, std::nullopt, LocalServerSettings::load(m_defaults, m_env));
}

QString AgentStatusController::networkTitle() const
{
    if (const std::optional<PairingPayload> payload = currentPairingPayload())
        return QStringLiteral("LAN: ") + payload->serverURL + QStringLiteral(" \u2022 ") + payload->agentId;
    return QStringLiteral("LAN: Unavailable");
}

} // namespace brinmoor
