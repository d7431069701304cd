#include "app/agent_only.h"

#include "agent/agent_runtime.h"
#include "base/diag.h"
#include "base/unix_signal_watcher.h"
#include "config/runtime_defaults.h"
#include "config/settings_store.h"

#include <QCoreApplication>
#include <QTimer>

#include <csignal>

namespace brinmoor {

int runAgentOnly()
{
    const std::unique_ptr<QSettingsStore> defaults = QSettingsStore::standard();
    const Environment env = currentEnvironment();
    RuntimeDefaults::ensure(*defaults, env);

    AgentRuntime runtime(*defaults, env, Machine::current());
    runtime.onStatus = [](const QString& text) { diag(QStringLiteral("status ") + text); };

    UnixSignalWatcher signals({SIGINT, SIGTERM});
    bool stopping = false;
    QObject::connect(&signals, &UnixSignalWatcher::received, &runtime, [&](int signal) {
        if (stopping)
            return;
        stopping = true;
        diag(QStringLiteral("shutdown signal=") + QString::number(signal));
        // A running task is ended with its whole process tree before the agent exits.
        runtime.shutDown([] { QCoreApplication::quit(); });
        // The runner kills what ignores SIGTERM after 5 s; never wait much longer.
        QTimer::singleShot(ProcessRunner::kKillGraceMilliseconds + 2000, &runtime, [] { QCoreApplication::quit(); });
    });

    runtime.start();
    const int status = QCoreApplication::exec();
    // A child that outlived the grace time is killed with the task's clean-up.
    if (runtime.currentTaskId())
        runtime.cleanupFinishedTask();
    diag(QStringLiteral("shutdown complete"));
    return status;
}

} // namespace brinmoor
