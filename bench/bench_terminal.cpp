// Terminal sessions through a real agent (BrinmoorMacAgent --agent-only) and a counting
// loopback server: `cat` of a 100 MB file in an interactive session until its last byte
// arrives, the echo round trip of 1,000 single keystrokes, and the agent's peak RSS while
// `yes` runs for 10 s and the server reads at only 1 MB/s.
//   bench_terminal [--mb N] [--keys N]
#include "loopback_counter.h"
#include "process_stats.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace brinmoor::bench;

namespace {

QJsonObject terminal(const char* type, const QJsonObject& more)
{
    QJsonObject payload = more;
    payload.insert(QStringLiteral("sessionId"), QStringLiteral("bench"));
    return {{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("payload"), payload}};
}

QJsonObject input(const QByteArray& bytes)
{
    return terminal("terminal.input", {{QStringLiteral("dataBase64"), QString::fromLatin1(bytes.toBase64())}});
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    return true;
}

// What the kernel's pseudo-terminals deliver at best here: `cat` of the file on a pty
// read in a tight loop with a 64 KiB buffer, no agent involved.
double rawPtyMegabytesPerSecond(const QString& file)
{
    const QByteArray path = QFile::encodeName(file);
    QElapsedTimer clock;
    clock.start();
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::execl("/bin/cat", "cat", path.constData(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    char buffer[65536];
    qint64 total = 0;
    ssize_t n = 0;
    while ((n = ::read(master, buffer, sizeof buffer)) > 0)
        total += n;
    ::close(master);
    ::waitpid(pid, nullptr, 0);
    return double(total) / 1e6 / (double(clock.nsecsElapsed()) / 1e9);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qint64 megabytes = 100;
    int keys = 1000;
    for (int i = 1; i + 1 < argc; ++i) {
        if (QByteArray(argv[i]) == "--mb")
            megabytes = QByteArray(argv[i + 1]).toLongLong();
        else if (QByteArray(argv[i]) == "--keys")
            keys = QByteArray(argv[i + 1]).toInt();
    }

    QTemporaryDir home;
    const QString file = home.path() + QStringLiteral("/data.txt");
    {
        QFile out(file);
        out.open(QIODevice::WriteOnly);
        const QByteArray line = QByteArray(79, 'x') + '\n';
        for (qint64 written = 0; written < megabytes * 1000 * 1000; written += line.size())
            out.write(line);
    }

    LoopbackCounter server;
    if (!server.listen())
        return 1;
    bool registered = false;
    bool opened = false;
    bool sawEnd = false;
    qint64 outputBytes = 0;
    qint64 outputFrames = 0;
    server.onRawText = [&](const char* payload, qsizetype size) {
        static const char kOutput[] = "\"type\":\"terminal.output\"}";
        const qsizetype markerSize = qsizetype(sizeof kOutput) - 1;
        if (size > markerSize && std::memcmp(payload + size - markerSize, kOutput, size_t(markerSize)) == 0) {
            ++outputFrames;
            outputBytes += size;
            if (QByteArrayView(payload, size).contains("BENCH-END"))
                sawEnd = true;
            return true;
        }
        return false;
    };
    server.onMessage = [&](const QJsonObject& message) {
        const QString type = message.value(QStringLiteral("type")).toString();
        if (type == QLatin1String("agent.register"))
            registered = true;
        else if (type == QLatin1String("terminal.opened"))
            opened = true;
    };

    QProcess agent;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    env.insert(QStringLiteral("XDG_STATE_HOME"), home.path() + QStringLiteral("/state"));
    env.insert(QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("http://127.0.0.1:%1").arg(server.port()));
    env.insert(QStringLiteral("BRINMOOR_REPO_ROOT"), home.path());
    // A plain prompt keeps the echo measurement about the agent, not the shell's theme.
    env.insert(QStringLiteral("ZDOTDIR"), home.path());
    agent.setProcessEnvironment(env);
    agent.setStandardOutputFile(QProcess::nullDevice());
    agent.start(QCoreApplication::applicationDirPath() + QStringLiteral("/BrinmoorMacAgent"),
                {QStringLiteral("--agent-only")});
    if (!waitFor([&] { return registered; }, 15000))
        return 1;
    server.send(terminal("terminal.open", {{QStringLiteral("projectPath"), home.path()},
                                           {QStringLiteral("mode"), QStringLiteral("interactive")}}));
    if (!waitFor([&] { return opened; }, 10000))
        return 1;
    // Let the login shell settle at its prompt.
    server.send(input("PS1='> '; stty -ixon\n"));
    QElapsedTimer settle;
    settle.start();
    waitFor([&] { return settle.elapsed() > 1000; }, 2000);

    std::printf("terminal sessions (interactive, through BrinmoorMacAgent --agent-only)\n");
    std::printf("  raw pty ceiling          %.1f MB/s (cat on a pty read in a tight loop, no agent)\n",
                rawPtyMegabytesPerSecond(file));
    // 1. Throughput of cat.
    outputBytes = 0;
    outputFrames = 0;
    sawEnd = false;
    QElapsedTimer clock;
    clock.start();
    server.send(input("cat '" + file.toLocal8Bit() + "'; echo BENCH''-END\n"));
    if (!waitFor([&] { return sawEnd; }, 300000))
        return 1;
    const double catSeconds = double(clock.nsecsElapsed()) / 1e9;
    std::printf("  cat of %lld MB            %.2f s: %.1f MB/s (%lld output messages)\n",
                static_cast<long long>(megabytes), catSeconds, double(megabytes) / catSeconds,
                static_cast<long long>(outputFrames));

    // 2. Echo round trip of single keystrokes.
    std::vector<double> samples;
    for (int i = 0; i < keys; ++i) {
        const qint64 framesBefore = outputFrames;
        QElapsedTimer key;
        key.start();
        server.send(input("a"));
        if (!waitFor([&] { return outputFrames > framesBefore; }, 5000))
            return 1;
        samples.push_back(double(key.nsecsElapsed()) / 1e6);
        if (i % 50 == 49) {
            server.send(input("\x15")); // ^U clears the line
            QElapsedTimer pause;
            pause.start();
            waitFor([&] { return pause.elapsed() > 20; }, 100);
        }
    }
    std::sort(samples.begin(), samples.end());
    std::printf("  echo round trip          median %.3f ms, 99th percentile %.3f ms (%d keystrokes)\n",
                samples[samples.size() / 2], samples[size_t(double(samples.size()) * 0.99)], keys);

    // 3. Memory while `yes` runs and the server reads slowly.
    server.send(input("\x15"));
    server.throttleFor(1024 * 1024, 10000);
    server.send(input("timeout 10 yes; echo BENCH''-END\n"));
    sawEnd = false;
    waitFor([&] { return sawEnd; }, 120000);
    const double rss = peakRssMB(agent.processId());
    std::printf("  agent peak RSS           %.1f MB (whole run, including `yes` read at 1 MB/s for 10 s)\n", rss);

    agent.terminate();
    agent.waitForFinished(10000);
    return 0;
}
