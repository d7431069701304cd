// A task outlives a lost connection: it runs on, what it says waits, and the server
// hears all of it once the agent is back, once and in order.
#include "agent/agent_runtime.h"
#include "protocol/messages.h"
#include "support/agent_fixture.h"
#include "support/test_support.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

// Reconnects quickly, so that the tests need not wait the usual 3 s.
constexpr ConnectionIntervals kQuick{.heartbeatMilliseconds = 5000, .reconnectMilliseconds = 50};

QString resolveLine(const AgentFixture& f)
{
    return QStringLiteral("task.log workspace.resolve action=shell requestedProjectPath=") + f.repo.path() +
           QStringLiteral(" resolvedWorkingDir=") + f.repo.path();
}

// What a task prints in three pieces, as its trace shows them: numbered lines, with no
// empty line after each piece's newline.
QStringList linesOf(const QString& prefix)
{
    QStringList trace;
    for (int i = 1; i <= 3; ++i)
        trace += QStringLiteral("task.log %1 %2").arg(prefix).arg(i);
    return trace;
}

qsizetype indexOfLine(const LoopbackServer& server, const QString& line)
{
    const QList<QJsonObject>& messages = server.messages();
    for (qsizetype i = 0; i < messages.size(); ++i) {
        if (messages[i].value(QStringLiteral("line")).toString() == line)
            return i;
    }
    return -1;
}

bool writeLines(PieceWriter& pieces, const QByteArray& prefix)
{
    for (int i = 1; i <= 3; ++i) {
        if (!pieces.write(prefix + ' ' + QByteArray::number(i) + '\n'))
            return false;
    }
    return true;
}

} // namespace

class TstAgentResume : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aTaskOutlivesALostConnection()
    {
        AgentFixture f(QStringLiteral("secret-token"), kQuick);
        QVERIFY(f.connect());
        PieceWriter pieces(f.repo.path() + QStringLiteral("/pieces"));
        QVERIFY(f.startCat(QStringLiteral("t"), pieces));
        QVERIFY(writeLines(pieces, "before"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("line") == "before 3"; }));
        const quint16 port = f.server.port();
        f.server.close();
        QVERIFY(waitUntil([&] { return !f.runtime->isConnected(); }));
        // The task goes on while no server listens, and ends.
        QVERIFY(writeLines(pieces, "away"));
        pieces.finish();
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
        QVERIFY(f.statuses.contains(QStringLiteral("Ready: test-agent")));
        QVERIFY(f.server.listen(port));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")),
                 (QStringList{resolveLine(f), QStringLiteral("task.started")} + linesOf(QStringLiteral("before")) +
                  linesOf(QStringLiteral("away")) + QStringList{QStringLiteral("task.finished 0")}));
        // One stream of seqs over both connections; the second goes on where the first ended.
        const QList<qint64>& seqs = f.server.seqs();
        for (qsizetype i = 1; i < seqs.size(); ++i)
            QCOMPARE(seqs[i], seqs[i - 1] + 1);
        QCOMPARE(f.server.streams().size(), 2);
        const QJsonObject first = f.server.streams().first();
        const QJsonObject second = f.server.streams().last();
        QCOMPARE(first.value("next").toInteger(), first.value("first").toInteger());
        QCOMPARE(second.value("first").toInteger(), first.value("first").toInteger());
        const qsizetype away = indexOfLine(f.server, QStringLiteral("away 1"));
        QCOMPARE(second.value("next").toInteger(), seqs[away]);
    }

    void aRestartedServerHearsWhatItsPredecessorDidNotConfirm()
    {
        AgentFixture f(QStringLiteral("secret-token"), kQuick);
        // A server that confirms nothing, and then is gone with all it had.
        f.server.setAcknowledging(false);
        QVERIFY(f.connect());
        PieceWriter pieces(f.repo.path() + QStringLiteral("/pieces"));
        QVERIFY(f.startCat(QStringLiteral("t"), pieces));
        QVERIFY(writeLines(pieces, "before"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("line") == "before 3"; }));
        const quint16 port = f.server.port();
        f.server.close();
        QVERIFY(waitUntil([&] { return !f.runtime->isConnected(); }));
        QVERIFY(writeLines(pieces, "away"));
        LoopbackServer restarted;
        QVERIFY(restarted.listen(port));
        QVERIFY(restarted.waitFor([](const QJsonObject& m) { return m.value("line") == "away 3"; }));
        pieces.finish();
        QVERIFY(restarted.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QStringList trace;
        for (const QJsonObject& m : restarted.messages()) {
            if (m.value("taskId") == "t")
                trace.append(m.value("type").toString() + QLatin1Char(' ') + m.value("line").toString());
        }
        QStringList expected{QStringLiteral("task.log ") + resolveLine(f).mid(9), QStringLiteral("task.started ")};
        expected += linesOf(QStringLiteral("before")) + linesOf(QStringLiteral("away"));
        expected.append(QStringLiteral("task.finished "));
        QCOMPARE(trace, expected);
        // The messages sent again keep their seqs.
        const qsizetype before = indexOfLine(f.server, QStringLiteral("before 1"));
        QCOMPARE(restarted.seqs()[indexOfLine(restarted, QStringLiteral("before 1"))], f.server.seqs()[before]);
        QCOMPARE(restarted.streams().first().value("next").toInteger(), f.server.seqs().first());
    }

    void aTasksWaitingOutputStaysWithinItsBound()
    {
        AgentFixture f(QStringLiteral("secret-token"), kQuick);
        QVERIFY(f.connect());
        const QString gate = f.repo.path() + QStringLiteral("/gate");
        PieceWriter go(gate);
        // Prints once the test has opened and closed the gate: 400,000 numbered lines, 2.8 MB.
        DiagRecorder log;
        f.shell(QStringLiteral("t"),
                QStringLiteral("cat ") + gate + QStringLiteral(" >/dev/null; seq -f '%06g' 1 400000"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.started"), QStringLiteral("t")));
        const quint16 port = f.server.port();
        f.server.close();
        QVERIFY(waitUntil([&] { return !f.runtime->isConnected(); }));
        const QString prefix = QStringLiteral("runTask process started taskId=t pid=");
        QVERIFY(waitUntil([&] { return !log.texts().filter(prefix).isEmpty(); }));
        QVERIFY(go.start(log.texts().filter(prefix).first().mid(prefix.size()).toLongLong()));
        go.finish();
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }, 60000));
        QVERIFY(f.runtime->outbox().taskBytes(QStringLiteral("t")) <= Outbox::kTaskBytes);
        f.server.clearMessages();
        QVERIFY(f.server.listen(port));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t"), 60000));
        const QList<QJsonObject> lines = f.server.messagesOfType(QStringLiteral("task.log"), QStringLiteral("t"));
        // The oldest lines gave way to one that says how many; the newest are all there.
        static const QRegularExpression notice(
            QStringLiteral("^\u2026 (\\d+) earlier lines dropped while the server could not be reached \\(at most "
                           "16 MiB of a task's output waits\\)$"));
        const QRegularExpressionMatch match = notice.match(lines.first().value("line").toString());
        QVERIFY2(match.hasMatch(), qPrintable(lines.first().value("line").toString()));
        QVERIFY(match.captured(1).toLongLong() > 100'000);
        QString kept;
        qint64 memory = 0;
        for (const QJsonObject& line : lines) {
            const QJsonValue number = line.value("number");
            memory +=
                Messages::taskLogText(QStringLiteral("t"), line.value("line").toString(),
                                      number.isDouble() ? std::optional<qint64>(number.toInteger()) : std::nullopt)
                    .size() *
                2;
            if (&line != &lines.first())
                kept += line.value("line").toString();
        }
        QString all;
        for (int i = 1; i <= 400000; ++i)
            all += QStringLiteral("%1").arg(i, 6, 10, QLatin1Char('0'));
        QVERIFY(kept.size() > 600'000);
        QVERIFY(all.endsWith(kept));
        QVERIFY(memory <= Outbox::kTaskBytes);
        QCOMPARE(f.server.messages().last().value("type").toString(), QStringLiteral("agent.state"));
    }

    void aTaskIsStoppedOnlyWhenTheConnectionStaysLostPastItsGrace()
    {
        AgentFixture f(QStringLiteral("secret-token"), kQuick);
        f.settings.setValue(QStringLiteral("taskDisconnectGraceSec"), QStringLiteral("1"));
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 300"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.started"), QStringLiteral("t")));
        DiagRecorder log;
        const quint16 port = f.server.port();
        QElapsedTimer away;
        away.start();
        f.server.close();
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }, 10000));
        QVERIFY2(away.elapsed() >= 900, qPrintable(QString::number(away.elapsed())));
        QVERIFY(log.contains(QStringLiteral("task.stop.disconnected taskId=t graceSec=1")));
        QVERIFY(f.server.listen(port));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 QStringList{QStringLiteral("task.failed COMMAND_EXIT_NONZERO 15 command exited with status 15")});
    }

    void theAgentRestatesWhatItRunsOnEveryConnect()
    {
        AgentFixture f(QStringLiteral("secret-token"), kQuick);
        QDir(f.repo.path()).mkdir(QStringLiteral("App"));
        QVERIFY(f.connect());
        QCOMPARE(f.server.messages().at(1),
                 QJsonDocument::fromJson(R"({"type":"agent.state","tasks":[],"terminals":[]})").object());
        f.server.send(QJsonObject{
            {"type", "terminal.open"},
            {"payload", QJsonObject{{"sessionId", "s1"}, {"projectPath", "App"}, {"mode", "interactive"}}}});
        QVERIFY(f.server.waitForType(QStringLiteral("terminal.opened")));
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 300"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.started"), QStringLiteral("t")));
        f.server.closeClient();
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "agent.state"; }, 10000, 1));
        QCOMPARE(
            f.server.messagesOfType(QStringLiteral("agent.state")).last(),
            QJsonDocument::fromJson(QStringLiteral(R"({"type":"agent.state","tasks":[{"taskId":"t","kind":"shell",)"
                                                   R"("projectPath":"%1","status":"running"}],"terminals":[{)"
                                                   R"("sessionId":"s1","projectPath":"App","mode":"interactive"}]})")
                                        .arg(f.repo.path())
                                        .toUtf8())
                .object());
    }
};

QTEST_GUILESS_MAIN(TstAgentResume)
#include "tst_agent_resume.moc"
