#include "support/process_fixtures.h"

#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QFile>
#include <QRegularExpression>

namespace brinmoor::test {

namespace {

void merge(QProcessEnvironment& env, const QProcessEnvironment& extra)
{
    for (const QString& key : extra.keys())
        env.insert(key, extra.value(key));
}

} // namespace

QProcessEnvironment environment(const QStringList& entries)
{
    QProcessEnvironment env;
    for (const QString& entry : entries) {
        const qsizetype equals = entry.indexOf(QLatin1Char('='));
        env.insert(entry.left(equals), entry.mid(equals + 1));
    }
    return env;
}

AgentProcess::~AgentProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void AgentProcess::start(const QString& serverURL, const QProcessEnvironment& extra)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome.path());
    // The chat bookkeeping and claude's sessions stay in the test's folders too.
    env.insert(QStringLiteral("XDG_STATE_HOME"), configHome.path() + QStringLiteral("/state"));
    env.insert(QStringLiteral("CLAUDE_CONFIG_DIR"), configHome.path() + QStringLiteral("/claude"));
    env.insert(QStringLiteral("BRINMOOR_SERVER_URL"), serverURL);
    env.insert(QStringLiteral("BRINMOOR_AGENT_ID"), agentId);
    env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), token);
    env.insert(QStringLiteral("BRINMOOR_REPO_ROOT"), repo.path());
    merge(env, extra);
    process.setProcessEnvironment(env);
    process.start(binDir() + QStringLiteral("/BrinmoorMacAgent"), {QStringLiteral("--agent-only")});
}

QStringList AgentProcess::logTexts()
{
    m_out += process.readAllStandardOutput();
    QStringList texts;
    static const QRegularExpression prefix(QStringLiteral("^\\[BrinmoorMacAgent\\]\\[[^\\]]+\\] "));
    for (const QString& line : QString::fromUtf8(m_out).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        texts.append(QString(line).remove(prefix));
    return texts;
}

bool AgentProcess::stop(int timeoutMs)
{
    if (process.state() == QProcess::NotRunning)
        return true;
    process.terminate();
    return process.waitForFinished(timeoutMs);
}

HeadlessProcess::~HeadlessProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void HeadlessProcess::start(quint16 port, const QProcessEnvironment& extra)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& name :
         {QStringLiteral("DISPLAY"), QStringLiteral("WAYLAND_DISPLAY"), QStringLiteral("BRINMOOR_SHARED_TOKEN"),
          QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("BRINMOOR_SERVER_PATH")})
        env.remove(name);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome.path());
    env.insert(QStringLiteral("BRINMOOR_REPO_ROOT"), repo.path());
    env.insert(QStringLiteral("BRINMOOR_AGENT_ID"), QStringLiteral("headless-mac"));
    env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QString::number(port));
    merge(env, extra);
    process.setProcessEnvironment(env);
    process.start(binDir() + QStringLiteral("/BrinmoorMacAgent"), {QStringLiteral("--headless")});
}

const QByteArray& HeadlessProcess::output()
{
    m_out += process.readAllStandardOutput();
    return m_out;
}

bool HeadlessProcess::waitForOutput(QByteArrayView text, int timeoutMs)
{
    const bool seen = waitUntil([&] { return output().contains(text); }, timeoutMs);
    if (!seen)
        qWarning("not in the output: %s\n%s", text.toByteArray().constData(), m_out.constData());
    return seen;
}

bool HeadlessProcess::stop(int timeoutMs)
{
    if (process.state() == QProcess::NotRunning)
        return true;
    process.terminate();
    return process.waitForFinished(timeoutMs);
}

RelayRefusal runRefusedRelay(const QProcessEnvironment& settings)
{
    QProcess server;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("BRINMOOR_SHARED_TOKEN"));
    merge(env, settings);
    server.setProcessEnvironment(env);
    server.start(binDir() + QStringLiteral("/brinmoor-server"), QStringList());
    if (!server.waitForFinished(10000)) {
        server.kill();
        server.waitForFinished();
        return {};
    }
    return {server.exitCode(), QString::fromUtf8(server.readAllStandardError()), server.readAllStandardOutput()};
}

RelayProcess::~RelayProcess()
{
    kill();
}

bool RelayProcess::start(const QProcessEnvironment& extra, quint16 wantedPort)
{
    m_out.clear();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), token);
    env.insert(QStringLiteral("BRINMOOR_SERVER_PORT"), QString::number(wantedPort));
    env.insert(QStringLiteral("BRINMOOR_SERVER_BIND"), QStringLiteral("127.0.0.1"));
    merge(env, extra);
    m_tls = !env.value(QStringLiteral("BRINMOOR_TLS_CERT")).isEmpty();
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(binDir() + QStringLiteral("/brinmoor-server"), QStringList());
    static const QRegularExpression listening(QStringLiteral("^listening port=(\\d+)$"));
    QRegularExpressionMatch match;
    const bool started = waitUntil([&] {
        const QStringList all = lines();
        if (all.isEmpty())
            return process.state() == QProcess::NotRunning;
        match = listening.match(all.first());
        return true;
    });
    if (!started || !match.hasMatch())
        return false;
    port = quint16(match.captured(1).toUInt());
    return true;
}

QString RelayProcess::url() const
{
    return (m_tls ? QStringLiteral("https://127.0.0.1:") : QStringLiteral("http://127.0.0.1:")) + QString::number(port);
}

QStringList RelayProcess::lines()
{
    m_out += process.readAllStandardOutput();
    return QString::fromUtf8(m_out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool RelayProcess::waitForLine(const QString& line, int timeoutMs)
{
    return waitUntil([&] { return lines().contains(line); }, timeoutMs);
}

qint64 RelayProcess::statusKB(QByteArrayView field) const
{
    QFile status(QStringLiteral("/proc/%1/status").arg(process.processId()));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field) && line.size() > field.size() && line[field.size()] == ':')
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

void RelayProcess::kill()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.kill();
    process.waitForFinished(5000);
}

} // namespace brinmoor::test
