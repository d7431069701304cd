#include "support/terminal_fixture.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

namespace brinmoor::test {

QJsonObject TerminalFixture::command(const char* type, const QString& sessionId, const QJsonObject& more)
{
    QJsonObject payload = more;
    payload.insert(QStringLiteral("sessionId"), sessionId);
    return {{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("payload"), payload}};
}

QJsonObject TerminalFixture::input(const QString& sessionId, const QByteArray& bytes)
{
    return command("terminal.input", sessionId,
                   {{QStringLiteral("dataBase64"), QString::fromLatin1(bytes.toBase64())}});
}

void TerminalFixture::open(const QString& sessionId, const QString& project, const QString& mode,
                           const QJsonObject& more, bool create)
{
    if (create && !project.startsWith(QLatin1Char('/')))
        QDir().mkpath(repo.path() + QLatin1Char('/') + project);
    QJsonObject payload = more;
    payload.insert(QStringLiteral("projectPath"), project);
    if (!mode.isEmpty())
        payload.insert(QStringLiteral("mode"), mode);
    server.send(command("terminal.open", sessionId, payload));
}

void TerminalFixture::send(const char* type, const QString& sessionId, const QJsonObject& more)
{
    server.send(command(type, sessionId, more));
}

void TerminalFixture::type(const QString& sessionId, const QByteArray& bytes)
{
    server.send(input(sessionId, bytes));
}

QList<QJsonObject> TerminalFixture::events(const QString& type, const QString& sessionId) const
{
    QList<QJsonObject> found;
    for (const QJsonObject& m : server.messages()) {
        if (m.value(QStringLiteral("type")).toString() == type &&
            m.value(QStringLiteral("sessionId")).toString() == sessionId)
            found.append(m);
    }
    return found;
}

QStringList TerminalFixture::chunks(const QString& sessionId) const
{
    QStringList data;
    for (const QJsonObject& m : events(QStringLiteral("terminal.output"), sessionId)) {
        if (!m.contains(QStringLiteral("snapshot")))
            data.append(m.value(QStringLiteral("data")).toString());
    }
    return data;
}

bool TerminalFixture::waitForOutput(const QString& sessionId, const QString& needle, int timeoutMs)
{
    return waitUntil([&] { return output(sessionId).contains(needle); }, timeoutMs);
}

std::optional<QJsonObject> TerminalFixture::waitForEvent(const QString& type, const QString& sessionId, int skip,
                                                         int timeoutMs)
{
    return server.waitFor(
        [&](const QJsonObject& m) {
            return m.value(QStringLiteral("type")).toString() == type &&
                   m.value(QStringLiteral("sessionId")).toString() == sessionId;
        },
        timeoutMs, skip);
}

bool TerminalFixture::barrier()
{
    const QString id = QStringLiteral("barrier-") + QString::number(++m_barriers);
    send("terminal.attach", id);
    return waitForEvent(QStringLiteral("terminal.error"), id).has_value();
}

qint64 TerminalFixture::pidOf(const QString& sessionId) const
{
    static const QRegularExpression line(
        QStringLiteral("^terminal\\.open(?:\\.interactive)? sessionId=(\\S+) .* pid=(\\d+)$"));
    for (const QString& text : log.texts()) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch() && match.captured(1) == sessionId)
            return match.captured(2).toLongLong();
    }
    return 0;
}

bool processExists(qint64 pid)
{
    return pid > 0 && QFileInfo::exists(QStringLiteral("/proc/") + QString::number(pid));
}

} // namespace brinmoor::test
