#pragma once

#include "agent/agent_runtime.h"
#include "base/diag.h"
#include "config/settings_store.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QTemporaryDir>

#include <memory>

namespace brinmoor::test {

// A loopback server and an agent runtime pointed at it, with in-memory settings and
// a temporary repository root. Status texts are recorded in order.
struct AgentFixture {
    QTemporaryDir repo;
    LoopbackServer server;
    MemorySettingsStore settings;
    std::unique_ptr<AgentRuntime> runtime;
    QStringList statuses;

    // `env` is the environment the runtime reads (its children get the test's own).
    explicit AgentFixture(const QString& token = QStringLiteral("secret-token"), ConnectionIntervals intervals = {},
                          Environment env = {})
    {
        server.listen();
        settings.setValue(QStringLiteral("serverURL"), server.serverURL());
        settings.setValue(QStringLiteral("agentId"), QStringLiteral("test-agent"));
        settings.setValue(QStringLiteral("token"), token);
        settings.setValue(QStringLiteral("repoRoot"), repo.path());
        Machine machine;
        machine.executablePath = repo.path() + QStringLiteral("/bin/BrinmoorMacAgent");
        machine.currentDirectory = repo.path();
        machine.homeDirectory = repo.path();
        machine.hostName = QStringLiteral("test host");
        runtime = std::make_unique<AgentRuntime>(settings, std::move(env), machine, intervals);
        runtime->onStatus = [this](const QString& text) { statuses.append(text); };
    }

    ~AgentFixture()
    {
        runtime->stop();
        // Let a running child end before the runtime goes.
        runtime->stopRunningProcessIfAny(false);
        waitUntil([this] { return !runtime->currentTaskId(); }, 8000);
        runtime.reset();
    }

    // Starts the agent and waits for its registration.
    bool connect()
    {
        runtime->start();
        return server.waitForType(QStringLiteral("agent.register")).has_value();
    }

    // Sends a "task.assign" with the given payload.
    void assign(const QString& taskId, const QJsonObject& payload)
    {
        server.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.assign")},
                                {QStringLiteral("taskId"), taskId},
                                {QStringLiteral("payload"), payload}});
    }

    void shell(const QString& taskId, const QString& command, qint64 timeoutSec = -1)
    {
        QJsonObject payload{{QStringLiteral("action"), QStringLiteral("shell")},
                            {QStringLiteral("command"), command},
                            {QStringLiteral("projectPath"), repo.path()}};
        if (timeoutSec >= 0)
            payload.insert(QStringLiteral("timeoutSec"), timeoutSec);
        assign(taskId, payload);
    }

    // Runs `cat` of the test's named pipe as a shell task and opens the pipe once it reads.
    bool startCat(const QString& taskId, PieceWriter& pieces)
    {
        DiagRecorder log;
        shell(taskId, QStringLiteral("cat ") + pieces.path());
        const QString prefix = QStringLiteral("runTask process started taskId=") + taskId + QStringLiteral(" pid=");
        if (!waitUntil([&] { return !log.texts().filter(prefix).isEmpty(); }))
            return false;
        return pieces.start(log.texts().filter(prefix).first().mid(prefix.size()).toLongLong());
    }

    // The messages of one task, as "type" or "task.log line", in order.
    QStringList taskTrace(const QString& taskId) const
    {
        QStringList trace;
        for (const QJsonObject& m : server.messages()) {
            if (m.value(QStringLiteral("taskId")).toString() != taskId)
                continue;
            const QString type = m.value(QStringLiteral("type")).toString();
            if (type == QLatin1String("task.log"))
                trace.append(type + QLatin1Char(' ') + m.value(QStringLiteral("line")).toString());
            else if (type == QLatin1String("task.failed"))
                trace.append(type + QLatin1Char(' ') + m.value(QStringLiteral("errorCode")).toString() +
                             QLatin1Char(' ') + QString::number(m.value(QStringLiteral("exitCode")).toInt()) +
                             QLatin1Char(' ') + m.value(QStringLiteral("error")).toString());
            else if (m.contains(QStringLiteral("exitCode")))
                trace.append(type + QLatin1Char(' ') + QString::number(m.value(QStringLiteral("exitCode")).toInt()));
            else
                trace.append(type);
        }
        return trace;
    }
};

} // namespace brinmoor::test
