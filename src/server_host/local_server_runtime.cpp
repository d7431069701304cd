#include "server_host/local_server_runtime.h"

#include "base/platform.h"
#include "base/process_group.h"
#include "config/runtime_defaults.h"
#include "protocol/shared_token.h"

#include <QFileInfo>
#include <QProcess>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace brinmoor {

namespace {

bool isExecutableFile(const QString& path)
{
    const QFileInfo info(path);
    return !path.isEmpty() && info.isFile() && info.isExecutable();
}

bool canBind(int port)
{
    const int fd = Platform::makeSocket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return false;
    const int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

void printToStandardOutput(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

} // namespace

LocalServerRuntime::LocalServerRuntime(QObject* parent) : QObject(parent), printLine(printToStandardOutput)
{
    m_restart.setSingleShot(true);
    connect(&m_restart, &QTimer::timeout, this, [this] {
        const std::optional<QString> binary = resolveServerBinaryPath();
        if (!binary) {
            m_status(QStringLiteral("Bundled server not found"));
            return;
        }
        // A start that fails is tried again, later each time.
        launch(*binary, true);
    });
}

LocalServerRuntime::~LocalServerRuntime()
{
    // The current server and any still stopping (a quit right after stop()) are ended
    // without waiting for them: SIGTERM now, SIGKILL after the grace while the loop runs,
    // and the reaper's own stop should the agent be gone first.
    const QList<ProcessGroup*> servers = findChildren<ProcessGroup*>(Qt::FindDirectChildrenOnly);
    for (ProcessGroup* server : servers) {
        server->process()->disconnect(this);
        if (server->isRunning())
            server->stop(kStopGraceMilliseconds);
        server->release();
    }
}

int LocalServerRuntime::resolveAvailablePort(int startingAt)
{
    QList<int> candidates{startingAt};
    for (int port = 8080; port <= 8090; ++port) {
        if (port != startingAt)
            candidates.append(port);
    }
    for (const int port : candidates) {
        // A port outside the range cannot be bound; 0 can (any free port).
        if (port >= 0 && port < 65536 && canBind(port))
            return port;
    }
    return startingAt;
}

std::optional<QString> LocalServerRuntime::resolveServerBinaryPath()
{
    return resolveServerBinaryPath(currentEnvironment(), Machine::current());
}

std::optional<QString> LocalServerRuntime::resolveServerBinaryPath(const Environment& env, const Machine& machine)
{
    // A stale setting that names nothing runnable is passed over. The server that
    // ships with the agent comes before one beside the path the agent was started by,
    // so a link to the agent elsewhere still finds it.
    const QStringList candidates = {
        env.value(QStringLiteral("BRINMOOR_SERVER_PATH")),
        machine.bundleDirectory.isEmpty() ? QString() : machine.bundleDirectory + QStringLiteral("/brinmoor-server"),
        QFileInfo(machine.executablePath).absolutePath() + QStringLiteral("/brinmoor-server"),
        RuntimeDefaults::defaultRepoRoot(machine) + QStringLiteral("/server/brinmoor-server"),
        machine.currentDirectory + QStringLiteral("/server/brinmoor-server"),
    };
    for (const QString& candidate : candidates) {
        if (isExecutableFile(candidate))
            return candidate;
    }
    return std::nullopt;
}

bool LocalServerRuntime::isRunning() const
{
    return m_server && m_server->isRunning();
}

int RestartBackoff::next(qint64 ranMs)
{
    if (ranMs >= kSteadyMs)
        m_nextMs = kFirstMs;
    const int wait = m_nextMs;
    m_nextMs = std::min(m_nextMs * 2, kLongestMs);
    return wait;
}

int LocalServerRuntime::start(int port, const QString& token, Status status, const LocalServerSettings& server)
{
    stop();
    m_backoff.reset();
    m_port = resolveAvailablePort(port);
    m_token = token;
    m_status = std::move(status);
    m_settings = server;
    const std::optional<QString> binary = resolveServerBinaryPath();
    if (!binary) {
        m_status(QStringLiteral("Bundled server not found"));
        return m_port;
    }
    // The server would refuse it and exit at once: say why here instead.
    const qsizetype characters = token.toUcs4().size();
    if (characters < kMinimumTokenLength) {
        m_status(QStringLiteral("Not started: the shared token is too short (%1 characters); use at least %2")
                     .arg(characters)
                     .arg(kMinimumTokenLength));
        return m_port;
    }
    launch(*binary, false);
    return m_port;
}

void LocalServerRuntime::launch(const QString& binary, bool retry)
{
    auto* process = new QProcess;
    process->setProgram(binary);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QString::number(m_port));
    env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), m_token);
    for (const auto& [name, value] : m_settings.serverEnvironment()) {
        if (value.isEmpty())
            env.remove(name);
        else
            env.insert(name, value);
    }
    process->setProcessEnvironment(env);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    m_decoder.reset();
    auto* server = new ProcessGroup(this);
    connect(process, &QProcess::readyReadStandardOutput, this, &LocalServerRuntime::relay);
    connect(process, &QProcess::finished, this,
            [this, server](int exitCode, QProcess::ExitStatus) { ended(server, exitCode); });
    connect(process, &QProcess::errorOccurred, this, [this, server, retry](QProcess::ProcessError failure) {
        if (failure == QProcess::FailedToStart)
            failed(server, retry);
    });
    // A group of its own, so that the reaper ends it should the agent die without a word.
    m_server = server;
    server->start(process, ProcessGroup::Leader::Group);
    if (m_server != server)
        return; // not even forked, and already reported
    m_running.start();
    m_status(QStringLiteral("Server on :") + QString::number(m_port));
}

void LocalServerRuntime::failed(ProcessGroup* server, bool retry)
{
    m_status(QStringLiteral("Server failed: ") + server->process()->errorString());
    server->process()->disconnect(this);
    server->deleteLater();
    if (m_server != server)
        return;
    m_server = nullptr;
    if (retry)
        m_restart.start(m_backoff.next(0));
}

void LocalServerRuntime::ended(ProcessGroup* server, int exitCode)
{
    // The termination status: the exit status, or the number of the signal that ended it.
    m_status(QStringLiteral("Server stopped (%1)").arg(exitCode));
    server->forget();
    server->deleteLater();
    if (m_server != server)
        return; // stopped on purpose
    m_server = nullptr;
    // Ended by itself (a crash, a kill): the phone and the agent lose their meeting place
    // until it is back.
    m_restart.start(m_backoff.next(m_running.elapsed()));
}

void LocalServerRuntime::relay()
{
    if (!m_server)
        return;
    const QByteArray data = m_server->process()->readAllStandardOutput();
    if (data.isEmpty())
        return;
    // Only a character cut by the read waits for the next one; a read that is not
    // UTF-8 at all is dropped.
    const std::optional<QString> text = m_decoder.decode(data.constData(), data.size());
    if (!text)
        return;
    // What one read gave goes out at once, as one entry, trimmed: a last line the
    // server has not ended yet is not held back for its line end.
    const QString trimmed = text->trimmed();
    if (!trimmed.isEmpty())
        printLine(QStringLiteral("[BrinmoorServer] ") + trimmed);
}

void LocalServerRuntime::stop()
{
    m_restart.stop();
    if (!m_server)
        return;
    ProcessGroup* server = m_server;
    m_server = nullptr;
    // Only the output handling is let go: the end of the server is still reported
    // ("Server stopped (15)"), and its handler lets go of the process.
    disconnect(server->process(), &QProcess::readyReadStandardOutput, this, &LocalServerRuntime::relay);
    if (!server->isRunning()) {
        server->deleteLater();
        return;
    }
    // A server that ignores SIGTERM must not hold the port forever: whatever is still
    // there 3 s later is killed (and reported like any other end).
    server->stop(kStopGraceMilliseconds);
}

} // namespace brinmoor
