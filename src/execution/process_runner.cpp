#include "execution/process_runner.h"

#include "base/diag.h"
#include "config/agent_projects_store.h"
#include "config/settings_store.h"
#include "execution/approval_slot.h"
#include "execution/child_process.h"
#include "execution/output_lines.h"
#include "execution/task_host.h"
#include "protocol/messages.h"

#include <QDir>
#include <QTimer>

#include <csignal>

#include <limits>

namespace brinmoor {

namespace {

// Remembers the last output line that begins with a prefix, without keeping the
// whole output: a task may print gigabytes.
class MarkedLineTracker {
public:
    explicit MarkedLineTracker(QString prefix) : m_prefix(std::move(prefix)) {}

    void feed(const QString& text)
    {
        qsizetype start = 0;
        while (true) {
            const qsizetype newline = text.indexOf(QLatin1Char('\n'), start);
            const QStringView piece = QStringView(text).mid(start, newline < 0 ? text.size() - start : newline - start);
            appendToLine(piece);
            if (newline < 0)
                break;
            endLine();
            start = newline + 1;
        }
    }

    // The remembered line and the unfinished one, as output text to search.
    QString text() const
    {
        QString result = m_lastMarked;
        if (m_candidate && m_line.startsWith(m_prefix))
            result += QLatin1Char('\n') + m_line;
        return result;
    }

private:
    void appendToLine(QStringView piece)
    {
        if (!m_candidate)
            return;
        m_line += piece;
        // Once the line is long enough to tell, keep only lines that carry the marker.
        if (m_line.size() >= m_prefix.size() && !m_line.startsWith(m_prefix)) {
            m_candidate = false;
            m_line.clear();
        }
    }

    void endLine()
    {
        if (m_candidate && m_line.startsWith(m_prefix))
            m_lastMarked = m_line;
        m_line.clear();
        m_candidate = true;
    }

    QString m_prefix;
    QString m_line;
    QString m_lastMarked;
    bool m_candidate = true;
};

int timeLimitMilliseconds(qint64 timeoutSec)
{
    const qint64 limit = std::numeric_limits<int>::max();
    if (timeoutSec <= 0)
        return 0;
    return timeoutSec >= limit / 1000 ? static_cast<int>(limit) : static_cast<int>(timeoutSec * 1000);
}

} // namespace

struct ProcessRunner::TaskOutput {
    RunRequest request;
    // Only what the end of the task needs is kept: the success marker line when the
    // registration may be refreshed.
    std::optional<MarkedLineTracker> markedLines;
    // The child is being stopped (cancelled, timed out, disconnected): its end is final.
    bool stopping = false;
    // Its output as task log lines, each stream on its own.
    std::unique_ptr<OutputLines> outLines;
    std::unique_ptr<OutputLines> errLines;
};

void sendOutput(TaskHost& host, const QString& taskId, const QString& text)
{
    qsizetype start = 0;
    const bool numbered = host.numbersOutputLines();
    while (true) {
        const qsizetype newline = text.indexOf(QLatin1Char('\n'), start);
        const qsizetype end = newline < 0 ? text.size() : newline;
        if (newline < 0 && numbered && start == text.size() && start > 0)
            break; // the read ended with its newline
        host.sendTaskLog(taskId, QStringView(text).mid(start, end - start));
        if (newline < 0)
            break;
        start = newline + 1;
    }
}

ProcessRunner::ProcessRunner(TaskHost& host, QObject* parent) : QObject(parent), m_host(host) {}

ProcessRunner::~ProcessRunner() = default;

void ProcessRunner::runTask(const RunRequest& request)
{
    diag(QStringLiteral("Running task ") + logValue(request.taskId) + QStringLiteral(" workingDir=") +
         logValue(request.workingDir) + QStringLiteral(" timeoutSec=") + QString::number(request.timeoutSec));

    m_output = std::make_unique<TaskOutput>();
    m_output->request = request;
    m_output->outLines = std::make_unique<OutputLines>(m_host, request.taskId);
    m_output->errLines = std::make_unique<OutputLines>(m_host, request.taskId);
    if (request.refreshCapabilitiesOnSuccess)
        m_output->markedLines.emplace(QLatin1String(kSuccessMarker));
    m_currentTaskId = request.taskId;

    if (request.sendStarted)
        m_host.sendJSON(Messages::taskStarted(request.taskId));
    launchCurrentTask(request.shell);
}

void ProcessRunner::launchCurrentTask(const QString& shell)
{
    const QString taskId = m_output->request.taskId;
    launchWhenToolReady(
        shell, m_output->request.workingDir, [this](const QString& fitted) { launchTask(fitted); },
        [this, taskId] {
            if (m_currentTaskId != taskId)
                return;
            diag(QStringLiteral("runTask stopped before its command started taskId=") + logValue(taskId));
            cleanupFinishedTask();
        });
}

void ProcessRunner::launchWhenToolReady(const QString& shell, const QString& workingDir,
                                        std::function<void(const QString&)> launch, std::function<void()> abandon)
{
    const quint64 serial = ++m_launchSerial;
    m_abandonLaunch = std::move(abandon);
    m_tools.prepare(shell, workingDir, this, [this, serial, launch](const QString& fitted) {
        if (serial != m_launchSerial || !m_abandonLaunch)
            return; // abandoned meanwhile
        m_abandonLaunch = nullptr;
        launch(fitted);
    });
}

void ProcessRunner::abandonPendingLaunch()
{
    if (!m_abandonLaunch)
        return;
    const std::function<void()> abandon = std::move(m_abandonLaunch);
    m_abandonLaunch = nullptr;
    ++m_launchSerial;
    abandon();
}

void ProcessRunner::launchTask(const QString& shell)
{
    if (!m_output)
        return;
    const RunRequest& request = m_output->request;
    auto* child = new ChildProcess(m_host.outgoingFlow(), this);
    child->alsoWaitFor(m_host.taskOutputFlow());
    m_child = child;
    const QPointer<ChildProcess> watched = child;
    for (OutputLines* lines : {m_output->outLines.get(), m_output->errLines.get()})
        lines->moreComing = [watched] { return watched && watched->hasOutputComing(); };
    connect(child, &ChildProcess::standardOutput, this, &ProcessRunner::onStandardOutput);
    connect(child, &ChildProcess::standardError, this, &ProcessRunner::onStandardError);
    connect(child, &ChildProcess::exited, this, &ProcessRunner::onExited);
    connect(child, &ChildProcess::failedToStart, this, [this, child](const QString& error) {
        if (child == m_child && m_output)
            onLaunchFailed(error);
    });
    const QString taskId = request.taskId;
    connect(child, &ChildProcess::started, this, [this, child, taskId] {
        if (child == m_child && m_currentTaskId == taskId)
            diag(QStringLiteral("runTask process started taskId=") + logValue(taskId) + QStringLiteral(" pid=") +
                 QString::number(child->pid()));
    });

    QString error;
    if (!child->start({shell, request.workingDir, request.requiresTTY, ChildProcess::Channels::Separate}, &error))
        return onLaunchFailed(error);

    // A time-out is reported exactly like a cancellation.
    m_timeLimit = new QTimer(this);
    m_timeLimit->setSingleShot(true);
    connect(m_timeLimit, &QTimer::timeout, this, [this, taskId] { onTimeLimit(taskId); });
    m_timeLimit->start(timeLimitMilliseconds(request.timeoutSec));
}

void ProcessRunner::onLaunchFailed(const QString& error)
{
    m_host.sendJSON(Messages::taskFailed(m_output->request.taskId, QStringLiteral("failed to launch process: ") + error,
                                         QStringLiteral("PROCESS_START_FAILED"), 1));
    cleanupFinishedTask();
}

void ProcessRunner::onTimeLimit(const QString& taskId)
{
    if (m_currentTaskId != taskId || !m_child || !m_child->isRunning())
        return;
    Q_EMIT timeLimitReached(taskId);
    stopRunningProcessIfAny(true);
}

void ProcessRunner::onStandardOutput(const QString& text)
{
    if (!m_output)
        return;
    const RunRequest& request = m_output->request;
    if (m_output->markedLines)
        m_output->markedLines->feed(text);
    if (request.output)
        request.output->standardOutput(text);
    else
        m_output->outLines->take(text);
}

void ProcessRunner::onStandardError(const QString& text)
{
    if (!m_output)
        return;
    m_output->errLines->take(text);
    if (m_output->request.output)
        m_output->request.output->standardError(text);
}

void ProcessRunner::onExited(int status)
{
    ChildProcess* child = qobject_cast<ChildProcess*>(sender());
    if (!m_output || child != m_child) {
        // The child of a task already cleaned up: its end is logged, never reported.
        if (child) {
            diag(QStringLiteral("runTask process terminated taskId=") + logValue(m_letGo.take(child)) +
                 QStringLiteral(" exitCode=") + QString::number(status));
            child->deleteLater();
        }
        return;
    }
    const RunRequest request = m_output->request;
    m_output->outLines->flush();
    m_output->errLines->flush();
    if (request.output)
        request.output->endOfOutput();
    diag(QStringLiteral("runTask process terminated taskId=") + logValue(request.taskId) +
         QStringLiteral(" exitCode=") + QString::number(status));
    if (m_currentTaskId == request.taskId && status != 0 && request.output && !m_output->stopping) {
        if (const std::optional<QString> again = request.output->retryCommand()) {
            diag(QStringLiteral("runTask retrying taskId=") + logValue(request.taskId));
            releaseChild();
            launchCurrentTask(*again);
            return;
        }
    }
    if (m_currentTaskId == request.taskId && m_cancelling == request.taskId) {
        // Its one end: cancelled, whatever the stopped process says.
        m_host.sendJSON(Messages::taskCancelled(request.taskId, 130));
    } else if (m_currentTaskId == request.taskId) {
        if (request.output)
            request.output->exited(status);
        if (status == 0) {
            m_host.sendJSON(Messages::taskFinished(request.taskId));
            if (request.refreshCapabilitiesOnSuccess) {
                registerManagedProjectIfPresent(m_output->markedLines->text(), m_host.defaults(), m_host.environment());
                // The new project is listed on the phone at once.
                QTimer::singleShot(0, this, [this] { m_host.sendRegisterMessage(); });
            }
        } else {
            const QString message = QStringLiteral("command exited with status ") + QString::number(status);
            m_host.sendJSON(
                Messages::taskFailed(request.taskId, message, QStringLiteral("COMMAND_EXIT_NONZERO"), status));
        }
    }
    if (m_currentTaskId == request.taskId)
        cleanupFinishedTask();
}

void ProcessRunner::executeShellCapture(const QString& shell, const QString& workingDir, bool requiresTTY,
                                        bool registerAsCurrentProcess, std::function<void(ShellExecutionResult)> done,
                                        std::function<void(const QString&)> onOutput,
                                        std::function<void(const QString&)> onStart)
{
    const auto launch = [this, workingDir, requiresTTY, registerAsCurrentProcess, done, onOutput,
                         onStart](const QString& fitted) {
        if (onStart)
            onStart(fitted);
        auto* child = new ChildProcess(nullptr, this);
        if (registerAsCurrentProcess)
            m_child = child;
        auto output = std::make_shared<QString>();
        connect(child, &ChildProcess::standardOutput, child, [output, onOutput](const QString& text) {
            *output += text;
            if (onOutput)
                onOutput(text);
        });
        connect(child, &ChildProcess::exited, child, [this, child, output, done](int status) {
            if (m_child == child)
                m_child = nullptr;
            child->deleteLater();
            done(ShellExecutionResult{status, *output, QString()});
        });
        const auto failed = [this, child, done](const QString& error) {
            if (m_child == child)
                m_child = nullptr;
            child->deleteLater();
            done(ShellExecutionResult{1, QString(), QStringLiteral("failed to launch process: ") + error});
        };
        connect(child, &ChildProcess::failedToStart, child, failed);
        QString error;
        if (!child->start({fitted, workingDir, requiresTTY, ChildProcess::Channels::Merged}, &error))
            failed(error);
    };
    if (!registerAsCurrentProcess) {
        m_tools.prepare(shell, workingDir, this, launch);
        return;
    }
    launchWhenToolReady(shell, workingDir, launch, [done] {
        done(ShellExecutionResult{1, QString(), QStringLiteral("stopped before the command started")});
    });
}

void ProcessRunner::stopRunningProcessIfAny(bool cancelled)
{
    // A cancelled or disconnected proposal counts as rejected.
    m_host.approvals().resolvePendingApproval(false);
    if (!m_currentTaskId)
        return;
    const QString taskId = *m_currentTaskId;
    if (!m_child) {
        if (cancelled) {
            m_host.sendJSON(Messages::taskCancelled(taskId, 130));
            cleanupFinishedTask();
        }
        // A command still waiting for its tool's options never starts.
        abandonPendingLaunch();
        return;
    }
    if (m_cancelling == taskId)
        return; // already on its way to its one end
    if (m_child->isRunning()) {
        diag(QStringLiteral("stopRunningProcessIfAny terminating taskId=") + logValue(taskId));
        m_child->terminateTree(kKillGraceMilliseconds);
    }
    if (m_output)
        m_output->stopping = true;
    // The task state stays until the child has exited; its end is reported then.
    if (cancelled && m_host.oneEndPerTask())
        m_cancelling = taskId;
    else if (cancelled)
        m_host.sendJSON(Messages::taskCancelled(taskId, 130));
}

void ProcessRunner::releaseChild()
{
    if (m_timeLimit) {
        m_timeLimit->stop();
        m_timeLimit->deleteLater();
        m_timeLimit = nullptr;
    }
    if (m_child) {
        ChildProcess* child = m_child;
        m_child = nullptr;
        if (child->isRunning() && m_output) {
            // Let go, but not forgotten: the group is killed and its end logged when it comes.
            m_letGo.insert(child, m_output->request.taskId);
            child->kill();
        } else {
            child->disconnect(this);
            child->deleteLater();
        }
    }
}

void ProcessRunner::cleanupFinishedTask()
{
    releaseChild();
    m_output.reset();
    m_currentTaskId.reset();
    m_cancelling.reset();
    Q_EMIT taskEnded();
    m_host.reportStatus(QStringLiteral("Ready: ") + m_host.agentId());
}

bool registerManagedProjectIfPresent(const QString& taskOutput, SettingsStore& defaults,
                                     const QMap<QString, QString>& env)
{
    const std::optional<QString> announced =
        AgentProjectsStore::managedProjectPath(taskOutput, QLatin1String(ProcessRunner::kSuccessMarker));
    if (!announced)
        return false;
    const QString path = QDir::cleanPath(*announced);
    const QStringList configured = AgentProjectsStore::loadConfigured(defaults, env);
    const QStringList updated = AgentProjectsStore::normalize(configured + QStringList{path});
    if (updated == AgentProjectsStore::normalize(configured))
        return false;
    defaults.setValue(QStringLiteral("projects"), updated.join(QLatin1Char(',')));
    defaults.sync();
    diag(QStringLiteral("registerManagedProjectIfPresent added project=") + logValue(path));
    return true;
}

} // namespace brinmoor
