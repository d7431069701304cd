#pragma once

#include "support/agent_fixture.h"

#include <QByteArray>
#include <QJsonObject>

#include <optional>

namespace brinmoor::test {

// An agent fixture that drives terminal sessions as the phone does and reads the
// events the agent answers with. The agent's diag lines are recorded from the start.
struct TerminalFixture : AgentFixture {
    DiagRecorder log;

    // A terminal command with its payload ("sessionId" added).
    static QJsonObject command(const char* type, const QString& sessionId, const QJsonObject& more = {});
    // "terminal.input" with the bytes in Base64.
    static QJsonObject input(const QString& sessionId, const QByteArray& bytes);

    // Creates the project folder under the repository root (unless it is absolute or
    // `create` is false) and sends "terminal.open".
    void open(const QString& sessionId, const QString& project, const QString& mode = {}, const QJsonObject& more = {},
              bool create = true);
    void send(const char* type, const QString& sessionId, const QJsonObject& more = {});
    void type(const QString& sessionId, const QByteArray& bytes);

    // The "data" of each live (not replayed) "terminal.output" of a session, in order.
    QStringList chunks(const QString& sessionId) const;
    QString output(const QString& sessionId) const { return chunks(sessionId).join(QString()); }
    bool waitForOutput(const QString& sessionId, const QString& needle, int timeoutMs = 10000);
    // The (skip+1)-th event of that type for the session.
    std::optional<QJsonObject> waitForEvent(const QString& type, const QString& sessionId, int skip = 0,
                                            int timeoutMs = 10000);
    QList<QJsonObject> events(const QString& type, const QString& sessionId) const;
    // A round trip: an attach to a session that does not exist, answered in order, so
    // everything the agent sent before handling it has arrived when this returns true.
    bool barrier();
    // The shell's process id, from the agent's "terminal.open" line; 0 before it.
    qint64 pidOf(const QString& sessionId) const;

private:
    int m_barriers = 0;
};

// Whether a process with that id exists (a zombie counts until it is reaped).
bool processExists(qint64 pid);

} // namespace brinmoor::test
