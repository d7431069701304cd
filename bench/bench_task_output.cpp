// Task output throughput: a child prints N MB of 80-character lines through a real
// agent process (BrinmoorMacAgent --agent-only) to a counting loopback server.
//   bench_task_output [--mb N] [--slow-seconds S] [--plain]
// With --slow-seconds the server reads at 1 MB/s for the first S seconds. The server
// speaks as the relay does (numbered messages, confirmed), or with --plain as a server
// that knows only the agent protocol.
#include "loopback_counter.h"
#include "process_stats.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

using namespace brinmoor::bench;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qint64 megabytes = 200;
    qint64 slowSeconds = 0;
    const QStringList args = app.arguments();
    const bool plain = args.contains(QStringLiteral("--plain"));
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--mb"))
            megabytes = args[i + 1].toLongLong();
        else if (args[i] == QLatin1String("--slow-seconds"))
            slowSeconds = args[i + 1].toLongLong();
    }

    LoopbackCounter server;
    server.setPlain(plain);
    if (!server.listen())
        return 1;
    if (slowSeconds > 0)
        server.throttle(1024 * 1024, slowSeconds * 1000);

    QTemporaryDir home;
    QProcess agent;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    env.insert(QStringLiteral("XDG_STATE_HOME"), home.path() + QStringLiteral("/state"));
    env.insert(QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("http://127.0.0.1:%1").arg(server.port()));
    env.insert(QStringLiteral("BRINMOOR_AGENT_ID"), QStringLiteral("bench"));
    env.insert(QStringLiteral("BRINMOOR_REPO_ROOT"), home.path());
    agent.setProcessEnvironment(env);
    agent.setStandardOutputFile(QProcess::nullDevice());
    agent.start(QCoreApplication::applicationDirPath() + QStringLiteral("/BrinmoorMacAgent"),
                {QStringLiteral("--agent-only")});
    if (!agent.waitForStarted())
        return 1;

    // 79 characters and a newline per line.
    const QString line = QString(79, QLatin1Char('x'));
    const QString command = QStringLiteral("yes %1 | head -c %2").arg(line).arg(megabytes * 1000 * 1000);
    QElapsedTimer clock;
    double serverCpuAtStart = 0;
    double agentCpuAtStart = 0;
    double elapsed = 0;
    int exitCode = -1;
    server.onMessage = [&](const QJsonObject& message) {
        const QString type = message.value(QStringLiteral("type")).toString();
        if (type == QLatin1String("agent.register")) {
            server.send({{QStringLiteral("type"), QStringLiteral("task.assign")},
                         {QStringLiteral("taskId"), QStringLiteral("t")},
                         {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                                 {QStringLiteral("command"), command}}}});
        } else if (type == QLatin1String("task.started")) {
            clock.start();
            serverCpuAtStart = selfCpuSeconds();
            agentCpuAtStart = cpuSeconds(agent.processId());
        } else if (type == QLatin1String("task.finished") || type == QLatin1String("task.failed")) {
            elapsed = double(clock.nsecsElapsed()) / 1e9;
            exitCode = message.value(QStringLiteral("exitCode")).toInt();
            QCoreApplication::quit();
        }
    };
    QTimer::singleShot(600000, &app, [] { QCoreApplication::quit(); });
    app.exec();

    const double rss = peakRssMB(agent.processId());
    const double agentCpu = cpuSeconds(agent.processId()) - agentCpuAtStart;
    const double serverCpu = selfCpuSeconds() - serverCpuAtStart;
    agent.terminate();
    agent.waitForFinished(10000);

    const double linesPerSecond = double(server.logLines()) / elapsed;
    const double megabytesPerSecond = double(server.logTextBytes()) / 1e6 / elapsed;
    std::printf("task output: %lld MB, %s server reads %s\n", static_cast<long long>(megabytes),
                plain ? "a plain" : "the relay's",
                slowSeconds > 0 ? qPrintable(QStringLiteral("1 MB/s for the first %1 s").arg(slowSeconds))
                                : "as fast as it can");
    std::printf("  task.log lines      %lld (exit %d)\n", static_cast<long long>(server.logLines()), exitCode);
    std::printf("  elapsed             %.2f s\n", elapsed);
    std::printf("  lines/s             %.0f\n", linesPerSecond);
    std::printf("  line text MB/s      %.1f\n", megabytesPerSecond);
    std::printf("  agent peak RSS      %.1f MB\n", rss);
    std::printf("  agent CPU           %.0f%% of one core\n", 100.0 * agentCpu / elapsed);
    std::printf("  counting server CPU %.0f%% of one core\n", 100.0 * serverCpu / elapsed);
    return exitCode == 0 ? 0 : 1;
}
