#include "execution/process_runner.h"

#include "agent/agent_runtime.h"
#include "agent/diag.h"
#include "agent/messages.h"
#include "config/agent_projects_store.h"
#include "config/settings_store.h"
#include "execution/chat_execution.h"
#include "execution/child_process.h"
#include "proposals/narrative_text.h"

#include <QDir>
#include <QTimer>

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
    QString conversationId;
    // Only what the end of the task needs is kept: the success marker line when the
    // registration may be refreshed, the sanitized text when it is a chat.
    std::optional<MarkedLineTracker> markedLines;
    QString chatBuffer;
    // Chats: the tool's event stream parser and the final texts it reported.
    std::unique_ptr<ChatJSONLineParser> parser;
    QString chatResultBuffer;
};

ProcessRunner::ProcessRunner(AgentRuntime& runtime) : m_runtime(runtime) {}

ProcessRunner::~ProcessRunner() = default;

void ProcessRunner::runTask(const RunRequest& request)
{
    diag(QStringLiteral("Running task ") + request.taskId + QStringLiteral(" workingDir=") + request.workingDir +
         QStringLiteral(" timeoutSec=") + QString::number(request.timeoutSec));

    m_output = std::make_unique<TaskOutput>();
    m_output->request = request;
    m_output->conversationId = request.chatConversationID.value_or(QString());
    if (request.refreshCapabilitiesOnSuccess)
        m_output->markedLines.emplace(QLatin1String(kSuccessMarker));
    if (request.chatJSONProvider)
        m_output->parser = std::make_unique<ChatJSONLineParser>(*request.chatJSONProvider);
    m_currentTaskId = request.taskId;

    if (request.sendStarted)
        m_runtime.sendJSON(Messages::taskStarted(request.taskId));

    const QString taskId = request.taskId;
    launchWhenToolReady(
        request.shell, request.workingDir, [this](const QString& shell) { launchTask(shell); },
        [this, taskId] {
            if (m_currentTaskId != taskId)
                return;
            diag(QStringLiteral("runTask stopped before its command started taskId=") + taskId);
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
    auto* child = new ChildProcess(&m_runtime.outgoingFlow(), this);
    m_child = child;
    connect(child, &ChildProcess::standardOutput, this, &ProcessRunner::onStandardOutput);
    connect(child, &ChildProcess::standardError, this, &ProcessRunner::onStandardError);
    connect(child, &ChildProcess::exited, this, &ProcessRunner::onExited);

    QString error;
    if (!child->start({shell, request.workingDir, request.requiresTTY, ChildProcess::Channels::Separate}, &error)) {
        m_runtime.sendJSON(Messages::taskFailed(request.taskId, QStringLiteral("failed to launch process: ") + error,
                                                QStringLiteral("PROCESS_START_FAILED"), 1));
        cleanupFinishedTask();
        return;
    }
    diag(QStringLiteral("runTask process started taskId=") + request.taskId + QStringLiteral(" pid=") +
         QString::number(child->pid()));

    // A time-out is reported exactly like a cancellation.
    m_timeLimit = new QTimer(this);
    m_timeLimit->setSingleShot(true);
    const QString taskId = request.taskId;
    connect(m_timeLimit, &QTimer::timeout, this, [this, taskId] { onTimeLimit(taskId); });
    m_timeLimit->start(timeLimitMilliseconds(request.timeoutSec));
}

void ProcessRunner::onTimeLimit(const QString& taskId)
{
    if (m_currentTaskId == taskId && m_child && m_child->isRunning())
        stopRunningProcessIfAny(true);
}

void ProcessRunner::onStandardOutput(const QString& text)
{
    if (!m_output)
        return;
    const RunRequest& request = m_output->request;
    if (m_output->markedLines)
        m_output->markedLines->feed(text);
    if (m_output->parser) {
        handleParseResult(m_output->parser->process(text));
        return;
    }
    if (request.emitChatEvents) {
        const QString sanitized = NarrativeText::sanitizeForChat(text);
        if (!sanitized.isEmpty())
            m_output->chatBuffer += sanitized;
    }
    sendOutput(request.taskId, text, request.emitChatEvents, m_output->conversationId);
}

void ProcessRunner::handleParseResult(const ParseResult& result)
{
    const RunRequest& request = m_output->request;
    if (result.threadID)
        m_runtime.chatSessions().recordCodexThreadID(*result.threadID, m_output->conversationId, request.projectPath);
    if (result.finalText)
        m_output->chatResultBuffer += *result.finalText;
    for (const QString& delta : result.deltas) {
        if (!delta.isEmpty())
            m_runtime.sendJSON(Messages::taskChatChunk(request.taskId, m_output->conversationId, delta));
    }
    for (const QString& diagnostic : result.diagnostics) {
        if (!diagnostic.isEmpty())
            m_runtime.sendJSON(Messages::taskLog(request.taskId, diagnostic));
    }
}

void ProcessRunner::onStandardError(const QString& text)
{
    if (!m_output)
        return;
    if (m_output->request.emitChatEvents) {
        const QString sanitized = NarrativeText::sanitizeForChat(text);
        if (!sanitized.isEmpty())
            m_output->chatBuffer += sanitized;
    }
    // Standard error never produces chat chunks.
    sendOutput(m_output->request.taskId, text, false, m_output->conversationId);
}

void ProcessRunner::sendOutput(const QString& taskId, const QString& text, bool emitChatEvents,
                               const QString& conversationId)
{
    // Output goes out in the pieces in which it was read: a line cut by a read
    // boundary arrives as two lines.
    qsizetype start = 0;
    while (true) {
        const qsizetype newline = text.indexOf(QLatin1Char('\n'), start);
        const qsizetype end = newline < 0 ? text.size() : newline;
        m_runtime.sendTaskLog(taskId, QStringView(text).mid(start, end - start));
        if (newline < 0)
            break;
        start = newline + 1;
    }
    if (emitChatEvents) {
        const QString sanitized = NarrativeText::sanitizeForChat(text);
        if (!sanitized.isEmpty())
            m_runtime.sendJSON(Messages::taskChatChunk(taskId, conversationId, sanitized));
    }
}

void ProcessRunner::onExited(int status)
{
    ChildProcess* child = qobject_cast<ChildProcess*>(sender());
    if (!m_output || child != m_child) {
        // A child of a task that is already cleaned up: nothing to report.
        if (child)
            child->deleteLater();
        return;
    }
    const RunRequest request = m_output->request;
    // A last line without its newline still counts.
    if (m_output->parser)
        handleParseResult(m_output->parser->finish());
    if (m_currentTaskId == request.taskId) {
        if (status == 0) {
            if (request.emitChatEvents) {
                if (const std::optional<QString> key =
                        ChatExecution::scopedConversationKey(request.projectPath, m_output->conversationId))
                    m_runtime.chatSessions().markChatSessionEstablished(*key);
                const QString finalText =
                    (m_output->chatResultBuffer.isEmpty() ? m_output->chatBuffer : m_output->chatResultBuffer).trimmed();
                if (!finalText.isEmpty())
                    m_runtime.sendJSON(Messages::taskChatFinal(request.taskId, m_output->conversationId, finalText));
            }
            m_runtime.sendJSON(Messages::taskFinished(request.taskId));
            if (request.refreshCapabilitiesOnSuccess) {
                registerManagedProjectIfPresent(m_output->markedLines->text(), m_runtime.defaults(),
                                                m_runtime.environment());
                // The new project is listed on the phone at once.
                QTimer::singleShot(0, &m_runtime, [runtime = &m_runtime] { runtime->sendRegisterMessage(); });
            }
        } else {
            const QString message = QStringLiteral("command exited with status ") + QString::number(status);
            if (request.emitChatEvents)
                m_runtime.sendJSON(Messages::taskChatError(request.taskId, m_output->conversationId, message));
            m_runtime.sendJSON(
                Messages::taskFailed(request.taskId, message, QStringLiteral("COMMAND_EXIT_NONZERO"), status));
        }
    }
    diag(QStringLiteral("runTask process terminated taskId=") + request.taskId + QStringLiteral(" exitCode=") +
         QString::number(status));
    if (m_currentTaskId == request.taskId)
        cleanupFinishedTask();
}

void ProcessRunner::executeShellCapture(const QString& shell, const QString& workingDir, bool requiresTTY,
                                        bool registerAsCurrentProcess, std::function<void(ShellExecutionResult)> done,
                                        std::function<void(const QString&)> onOutput,
                                        std::function<void(const QString&)> onStart)
{
    if (m_runtime.testShellCaptureHook) {
        if (onStart)
            onStart(shell);
        m_runtime.testShellCaptureHook(shell, workingDir, std::move(done));
        return;
    }
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
        QString error;
        if (!child->start({fitted, workingDir, requiresTTY, ChildProcess::Channels::Merged}, &error)) {
            if (m_child == child)
                m_child = nullptr;
            child->deleteLater();
            done(ShellExecutionResult{1, QString(), QStringLiteral("failed to launch process: ") + error});
        }
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
    if (m_runtime.hasPendingApproval())
        m_runtime.resolvePendingApproval(false);
    if (!m_currentTaskId)
        return;
    const QString taskId = *m_currentTaskId;
    if (!m_child) {
        if (cancelled) {
            m_runtime.sendJSON(Messages::taskCancelled(taskId, 130));
            cleanupFinishedTask();
        }
        // A command still waiting for its tool's options never starts.
        abandonPendingLaunch();
        return;
    }
    if (m_child->isRunning()) {
        diag(QStringLiteral("stopRunningProcessIfAny terminating taskId=") + taskId);
        m_child->terminateTree(kKillGraceMilliseconds);
    }
    // The task state stays until the child has exited; its end is reported then.
    if (cancelled)
        m_runtime.sendJSON(Messages::taskCancelled(taskId, 130));
}

void ProcessRunner::cleanupFinishedTask()
{
    if (m_timeLimit) {
        m_timeLimit->stop();
        m_timeLimit->deleteLater();
        m_timeLimit = nullptr;
    }
    if (m_child) {
        m_child->disconnect(this);
        m_child->deleteLater();
        m_child = nullptr;
    }
    m_output.reset();
    m_currentTaskId.reset();
    m_runtime.cleanupMCPConfig();
    m_runtime.reportStatus(QStringLiteral("Ready: ") + m_runtime.loadConnectionSettings().agentId);
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
    diag(QStringLiteral("registerManagedProjectIfPresent added project=") + path);
    return true;
}

} // namespace brinmoor
