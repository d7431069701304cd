#pragma once

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace brinmoor::test {

// The agent as a user runs it (`--agent-only`), with its own config home (which also
// holds its state and claude's sessions) and repository root, pointed at a server.
struct AgentProcess {
    QTemporaryDir configHome;
    QTemporaryDir repo;
    QProcess process;
    QString agentId = QStringLiteral("cli-agent");
    QString token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");

    ~AgentProcess();
    void start(const QString& serverURL, const QProcessEnvironment& extra = {});
    // The diag texts printed so far, without their time stamps.
    QStringList logTexts();
    // Sends SIGTERM and waits for the end; false when it did not end in time.
    bool stop(int timeoutMs = 10000);

private:
    QByteArray m_out;
};

// The app as a new user runs it (`--headless`): its own config home and repository
// root, no display, and the local server it starts on the port given; agent id
// "headless-mac".
struct HeadlessProcess {
    QTemporaryDir configHome;
    QTemporaryDir repo;
    QProcess process;

    ~HeadlessProcess();
    void start(quint16 port, const QProcessEnvironment& extra = {});
    // Everything it printed so far (its own lines and the server's). The server's
    // output is relayed per read under one "[BrinmoorServer] " prefix, so a server line
    // is looked for by its own text: it may follow another line of the same read.
    const QByteArray& output();
    bool waitForOutput(QByteArrayView text, int timeoutMs = 10000);
    // Sends SIGTERM and waits for the end; false when it did not end in time.
    bool stop(int timeoutMs = 10000);

private:
    QByteArray m_out;
};

// A `brinmoor-server` on 127.0.0.1 and a port of its own choosing (or a given one).
struct RelayProcess {
    QProcess process;
    QString token = QStringLiteral("relay-token-7f3a9c1e5b2d4086");
    quint16 port = 0;

    ~RelayProcess();
    // Starts it and waits for its "listening port=" line.
    bool start(const QProcessEnvironment& extra = {}, quint16 wantedPort = 0);
    // "http://127.0.0.1:PORT", or https when it was given a certificate.
    QString url() const;
    // Its output lines so far.
    QStringList lines();
    bool waitForLine(const QString& line, int timeoutMs = 10000);
    // A figure of /proc/PID/status in kB ("VmRSS", "VmHWM"), -1 when unreadable.
    qint64 statusKB(QByteArrayView field) const;
    void kill();

private:
    QByteArray m_out;
    bool m_tls = false;
};

// What brinmoor-server said when it would not start.
struct RelayRefusal {
    int exitCode = -1;
    QString error;     // standard error
    QByteArray output; // standard output
};
// Starts brinmoor-server with the system environment less BRINMOOR_SHARED_TOKEN, plus
// `settings`, and waits for it to end.
RelayRefusal runRefusedRelay(const QProcessEnvironment& settings);

// Environment entries for tests, from "NAME=value" texts.
QProcessEnvironment environment(const QStringList& entries);

} // namespace brinmoor::test
