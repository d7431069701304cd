// What the relay keeps of each agent for clients that come back: the bounded log, the
// present it tells them, and the pace of terminal readers.
#include "agent_snapshot.h"
#include "event_log.h"
#include "support/relay_fixture.h"
#include "terminal_flow.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace brinmoor::relay;
using brinmoor::test::json;

namespace {

// The seqs the log still gives out after `after`, in order.
QList<qint64> keptAfter(const EventLog& log, qint64 after)
{
    QList<qint64> seqs;
    qint64 seq = after;
    while (!log.next(seq, &seq).isEmpty())
        seqs.append(seq);
    return seqs;
}

const RelayConnection* client(int n)
{
    // Only compared, never used.
    return reinterpret_cast<const RelayConnection*>(quintptr(n) * 16);
}

} // namespace

class TstRelayHistory : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void givesOutWhatFollowsASeqInOrder()
    {
        qint64 now = 0;
        EventLog log({1024 * 1024, 60'000});
        QCOMPARE(log.headSeq(), 0);
        QCOMPARE(log.lostThrough(), 0);
        for (qint64 seq = 100; seq < 110; ++seq)
            log.append(now, seq, QByteArray("message ") + QByteArray::number(seq));
        qint64 seq = 0;
        QCOMPARE(log.next(104, &seq), QByteArray("message 105"));
        QCOMPARE(seq, 105);
        QCOMPARE(keptAfter(log, 107), (QList<qint64>{108, 109}));
        QCOMPARE(log.next(109, &seq), QByteArray());
        QCOMPARE(log.headSeq(), 109);
        // Whatever came before the first message is the caller's to say.
        log.markLostThrough(99);
        QCOMPARE(log.lostThrough(), 99);
        log.markLostThrough(50);
        QCOMPARE(log.lostThrough(), 99);
    }

    void staysWithinItsBytesUnderTenMinutesOfOutput()
    {
        qint64 now = 0;
        const qint64 bound = 64 * 1024;
        EventLog log({bound, 24LL * 3600 * 1000});
        const QByteArray line(100, 'x');
        qint64 peak = 0;
        // A build printing 1,000 lines a second for ten minutes.
        for (qint64 seq = 1; seq <= 600'000; ++seq) {
            now = seq;
            log.append(now, seq, line);
            peak = std::max(peak, log.bytes());
        }
        QVERIFY2(peak <= bound, qPrintable(QString::number(peak)));
        const qint64 each = 100 + EventLog::kEntryOverhead;
        QCOMPARE(log.size(), bound / each);
        QCOMPARE(log.bytes(), log.size() * each);
        // What was let go is told as a number, and everything after it is there.
        QCOMPARE(log.lostThrough(), 600'000 - log.size());
        QCOMPARE(keptAfter(log, log.lostThrough()).size(), log.size());
    }

    void lettingGoOfWhatIsOlderThanItsAge()
    {
        qint64 now = 0;
        EventLog log({1024 * 1024 * 1024, 60'000});
        // Ten minutes, a message a second.
        for (qint64 seq = 1; seq <= 600; ++seq) {
            now = seq * 1000;
            log.append(now, seq, QByteArray(10, 'y'));
        }
        QCOMPARE(log.size(), 61);
        QCOMPARE(log.lostThrough(), 539);
        // Quiet time ages it too.
        now += 30'000;
        log.trimByAge(now);
        QCOMPARE(log.size(), 31);
        now += 31'000;
        log.trimByAge(now);
        QCOMPARE(log.size(), 0);
        QCOMPARE(log.bytes(), 0);
        QCOMPARE(log.lostThrough(), 600);
        QCOMPARE(log.headSeq(), 600);
    }

    void keepsOfATerminalOnlyWhatItsAgentWouldReplay()
    {
        qint64 now = 0;
        const qint64 bound = 4 * 1024 * 1024;
        EventLog log({bound, 24LL * 3600 * 1000});
        log.append(now, 1, "task started");
        const QByteArray chunk(1000, 'y');
        // `yes` in two terminals for ten minutes, and a task's lines among them.
        qint64 seq = 1;
        qint64 peak = 0;
        for (int i = 0; i < 300'000; ++i) {
            now = i * 2;
            log.append(now, ++seq, chunk, i % 2 ? "s1" : "s\\\"2");
            if (i % 1000 == 0)
                log.append(now, ++seq, "task line");
            peak = std::max(peak, log.bytes());
        }
        QVERIFY2(peak <= bound, qPrintable(QString::number(peak)));
        // The task's messages stay; of each terminal the newest 128 outputs.
        QCOMPARE(log.lostThrough(), 0);
        const QList<qint64> kept = keptAfter(log, 0);
        QCOMPARE(kept.size(), 1 + 300 + 2 * EventLog::kTerminalOutputKept);
        QCOMPARE(kept.first(), 1);
        QCOMPARE(kept.last(), seq);
        QCOMPARE(log.size(), kept.size());
        QVERIFY(log.bytes() <
                2 * EventLog::kTerminalOutputKept * 1100 + 301 * 100 + 4 * 1024 * EventLog::kEntryOverhead);
    }

    void snapshotFollowsTasksFromCreationToTheirEnd()
    {
        AgentSnapshot snapshot;
        QCOMPARE(snapshot.toJson(), json("{\"tasks\":[],\"proposal\":null,\"terminals\":[]}"));
        snapshot.taskCreated("t1", json("{\"action\":\"shell\",\"command\":\"make\",\"projectPath\":\"App\"}"));
        snapshot.taskCreated("t2", json("{\"action\":\"chat\",\"projectPath\":\"App\",\"conversationId\":\"c1\"}"));
        snapshot.taskCreated("t3", json("{}"));
        snapshot.observe(json("{\"type\":\"task.started\",\"taskId\":\"t1\"}"));
        snapshot.observe(json("{\"type\":\"task.finished\",\"taskId\":\"t1\",\"exitCode\":0}"));
        snapshot.observe(json("{\"type\":\"task.cancelled\",\"taskId\":\"t2\",\"exitCode\":130}"));
        // The child's own end after a cancellation does not change it.
        snapshot.observe(json("{\"type\":\"task.failed\",\"taskId\":\"t2\",\"exitCode\":143,\"errorCode\":\"X\"}"));
        snapshot.observe(json("{\"type\":\"task.heartbeat\",\"taskId\":\"t4\"}"));
        QCOMPARE(
            snapshot.toJson().value("tasks"),
            QJsonDocument::fromJson(
                "[{\"taskId\":\"t1\",\"kind\":\"shell\",\"projectPath\":\"App\",\"status\":\"finished\",\"exitCode\":0},"
                "{\"taskId\":\"t2\",\"kind\":\"chat\",\"projectPath\":\"App\",\"conversationId\":\"c1\","
                "\"status\":\"cancelled\",\"exitCode\":130},"
                "{\"taskId\":\"t3\",\"kind\":\"build_ios\",\"projectPath\":\"\",\"status\":\"running\"},"
                "{\"taskId\":\"t4\",\"kind\":\"\",\"projectPath\":\"\",\"status\":\"running\"}]")
                .array());
        QCOMPARE(snapshot.runningTaskIds(), (QStringList{"t3", "t4"}));
    }

    void snapshotKeepsTheNewestEndedTasks()
    {
        AgentSnapshot snapshot;
        snapshot.taskCreated("running", json("{\"action\":\"shell\"}"));
        for (int i = 0; i < 30; ++i) {
            const QString id = QStringLiteral("t%1").arg(i);
            snapshot.taskCreated(id, json("{\"action\":\"shell\"}"));
            snapshot.observe(QJsonObject{{"type", "task.finished"}, {"taskId", id}, {"exitCode", 0}});
        }
        const QJsonArray tasks = snapshot.toJson().value("tasks").toArray();
        QCOMPARE(tasks.size(), AgentSnapshot::kEndedTasksKept + 1);
        QCOMPARE(tasks.first().toObject().value("taskId").toString(), QStringLiteral("running"));
        QCOMPARE(tasks.at(1).toObject().value("taskId").toString(), QStringLiteral("t10"));
        QCOMPARE(tasks.last().toObject().value("taskId").toString(), QStringLiteral("t29"));
    }

    void snapshotHoldsTheProposalUntilItIsDecided()
    {
        AgentSnapshot snapshot;
        snapshot.taskCreated("t", json("{\"action\":\"ai_task\",\"projectPath\":\"App\"}"));
        snapshot.observe(json("{\"type\":\"task.awaiting_approval\",\"agentId\":\"mac\",\"taskId\":\"t\","
                              "\"proposalId\":\"p\",\"proposalSummary\":\"1 file\",\"proposalCommentary\":\"why\","
                              "\"proposalDiff\":\"--- a\\n+++ b\\n\",\"proposalFiles\":[\"a\"]}"));
        QCOMPARE(snapshot.toJson(),
                 json("{\"tasks\":[{\"taskId\":\"t\",\"kind\":\"ai_task\",\"projectPath\":\"App\",\"status\":"
                      "\"awaiting_approval\"}],\"proposal\":{\"taskId\":\"t\",\"proposalId\":\"p\",\"proposalSummary\":"
                      "\"1 file\",\"proposalCommentary\":\"why\",\"proposalDiff\":\"--- a\\n+++ b\\n\","
                      "\"proposalFiles\":[\"a\"]},\"terminals\":[]}"));
        snapshot.approvalSent("other");
        QVERIFY(snapshot.toJson().value("proposal").isObject());
        snapshot.approvalSent("t");
        QCOMPARE(snapshot.toJson(), json("{\"tasks\":[{\"taskId\":\"t\",\"kind\":\"ai_task\",\"projectPath\":\"App\","
                                         "\"status\":\"running\"}],\"proposal\":null,\"terminals\":[]}"));
        // A proposal whose task ends is no longer waiting.
        snapshot.observe(json("{\"type\":\"task.awaiting_approval\",\"taskId\":\"t\",\"proposalId\":\"q\"}"));
        snapshot.observe(json("{\"type\":\"task.failed\",\"taskId\":\"t\",\"exitCode\":1}"));
        QCOMPARE(snapshot.toJson().value("proposal"), QJsonValue());
    }

    void snapshotListsTheOpenTerminals()
    {
        AgentSnapshot snapshot;
        snapshot.observe(json("{\"type\":\"terminal.opened\",\"sessionId\":\"s1\",\"projectPath\":\"A\","
                              "\"status\":\"running\",\"mode\":\"interactive\"}"));
        snapshot.observe(json("{\"type\":\"terminal.opened\",\"sessionId\":\"s2\",\"projectPath\":\"B\"}"));
        // An attach is answered without a mode; the session keeps its own.
        snapshot.observe(json("{\"type\":\"terminal.opened\",\"sessionId\":\"s1\",\"projectPath\":\"A\"}"));
        QCOMPARE(snapshot.toJson().value("terminals"),
                 QJsonDocument::fromJson("[{\"sessionId\":\"s2\",\"projectPath\":\"B\",\"mode\":\"line\"},"
                                         "{\"sessionId\":\"s1\",\"projectPath\":\"A\",\"mode\":\"interactive\"}]")
                     .array());
        // A new session for a project replaces its old one; closing ends one.
        snapshot.observe(json("{\"type\":\"terminal.opened\",\"sessionId\":\"s3\",\"projectPath\":\"B\"}"));
        snapshot.observe(json("{\"type\":\"terminal.closed\",\"sessionId\":\"s1\",\"projectPath\":\"A\"}"));
        QCOMPARE(snapshot.toJson().value("terminals"),
                 QJsonDocument::fromJson("[{\"sessionId\":\"s3\",\"projectPath\":\"B\",\"mode\":\"line\"}]").array());
        snapshot.terminalClosing("s3");
        QCOMPARE(snapshot.toJson().value("terminals"), QJsonValue(QJsonArray()));
    }

    void anAgentsStateRestatesItsPresent()
    {
        AgentSnapshot snapshot;
        snapshot.taskCreated("old", json("{\"action\":\"shell\"}"));
        snapshot.taskCreated("done", json("{\"action\":\"shell\"}"));
        snapshot.observe(json("{\"type\":\"task.finished\",\"taskId\":\"done\",\"exitCode\":0}"));
        snapshot.observe(json("{\"type\":\"terminal.opened\",\"sessionId\":\"gone\",\"projectPath\":\"A\"}"));
        snapshot.observe(
            json("{\"type\":\"agent.state\",\"tasks\":[{\"taskId\":\"t9\",\"kind\":\"ai_task\",\"projectPath\":\"App\","
                 "\"status\":\"awaiting_approval\"}],\"proposal\":{\"taskId\":\"t9\",\"proposalId\":\"p\"},"
                 "\"terminals\":[{\"sessionId\":\"s\",\"projectPath\":\"B\",\"mode\":\"interactive\"}]}"));
        QCOMPARE(snapshot.toJson(),
                 json("{\"tasks\":[{\"taskId\":\"old\",\"kind\":\"shell\",\"projectPath\":\"\",\"status\":\"lost\"},"
                      "{\"taskId\":\"done\",\"kind\":\"shell\",\"projectPath\":\"\",\"status\":\"finished\","
                      "\"exitCode\":0},{\"taskId\":\"t9\",\"kind\":\"ai_task\",\"projectPath\":\"App\",\"status\":"
                      "\"awaiting_approval\"}],\"proposal\":{\"taskId\":\"t9\",\"proposalId\":\"p\"},\"terminals\":"
                      "[{\"sessionId\":\"s\",\"projectPath\":\"B\",\"mode\":\"interactive\"}]}"));
        QCOMPARE(snapshot.runningTaskIds(), QStringList{"t9"});
    }

    void theSlowestPacingClientSetsTheWindow()
    {
        TerminalFlow flow;
        using Window = TerminalFlow::Window;
        auto told = [](const std::optional<Window>& window) -> QString {
            if (!window)
                return QStringLiteral("nothing");
            return window->agentId + QLatin1Char('/') + window->sessionId + QLatin1Char(' ') +
                   (window->offset ? QString::number(*window->offset) : QStringLiteral("free"));
        };
        QCOMPARE(told(flow.acknowledge(client(1), "a", "s", 100)), QStringLiteral("a/s 100"));
        QCOMPARE(told(flow.acknowledge(client(2), "a", "s", 50)), QStringLiteral("a/s 50"));
        QCOMPARE(told(flow.acknowledge(client(1), "a", "s", 200)), QStringLiteral("nothing"));
        QCOMPARE(told(flow.acknowledge(client(2), "a", "s", 300)), QStringLiteral("a/s 200"));
        QCOMPARE(told(flow.acknowledge(client(2), "a", "s", 180)), QStringLiteral("a/s 180"));
        QCOMPARE(told(flow.acknowledge(client(2), "a", "t", 7)), QStringLiteral("a/t 7"));
        QCOMPARE(flow.windowsOf("a").size(), 2);
        QCOMPARE(flow.windowsOf("b").size(), 0);
        // A client that goes lets the others set the pace, or nobody.
        const QList<Window> changed = flow.removeClient(client(2));
        QStringList texts;
        for (const Window& window : changed)
            texts.append(told(window));
        texts.sort();
        QCOMPARE(texts, (QStringList{"a/s 200", "a/t free"}));
        // Without an offset a client stops pacing.
        QCOMPARE(told(flow.acknowledge(client(1), "a", "s", std::nullopt)), QStringLiteral("a/s free"));
        QCOMPARE(told(flow.acknowledge(client(1), "a", "s", std::nullopt)), QStringLiteral("nothing"));
        QCOMPARE(flow.windowsOf("a").size(), 0);
        flow.acknowledge(client(3), "a", "u", 1);
        flow.removeSession("a", "u");
        QCOMPARE(flow.windowsOf("a").size(), 0);
        QCOMPARE(flow.removeClient(client(3)).size(), 0);
    }

    void aClientThatOwesAnAcknowledgementTooLongStopsPacing()
    {
        TerminalFlow flow;
        flow.acknowledge(client(1), "a", "s", 10);
        flow.acknowledge(client(2), "a", "s", 20);
        QList<TerminalFlow::Stall> stalls;
        // Nothing was sent: however long it has been, nobody owes anything.
        QVERIFY(flow.dropStalled(100'000, 1'000, stalls).isEmpty());
        // Output at 1,000 ms: both owe from then; the first to acknowledge owes no more, and
        // output after that does not make the other owe from later.
        flow.sent("a", "s", 1'000);
        flow.acknowledge(client(1), "a", "s", 30);
        flow.sent("a", "s", 1'500);
        QVERIFY(flow.dropStalled(1'999, 1'000, stalls).isEmpty());
        const QList<TerminalFlow::Window> changed = flow.dropStalled(2'000, 1'000, stalls);
        QCOMPARE(stalls.size(), 1);
        QCOMPARE(stalls.first().client, client(2));
        QCOMPARE(stalls.first().sessionId, QStringLiteral("s"));
        QCOMPARE(changed.size(), 1);
        QCOMPARE(changed.first().offset, std::optional<qint64>(30));
        // The first owes from 1,500 ms, and goes in its turn; nobody paces the session then.
        QCOMPARE(flow.dropStalled(2'500, 1'000, stalls).first().offset, std::optional<qint64>());
        QCOMPARE(stalls.size(), 2);
        QVERIFY(flow.isEmpty());
        // Sent to a session nobody paces, or one never heard of: nothing to owe.
        flow.sent("a", "s", 3'000);
        flow.sent("b", "x", 3'000);
        QVERIFY(flow.dropStalled(10'000, 1'000, stalls).isEmpty());
    }

    void aClientPacesAtMostSoManySessions()
    {
        TerminalFlow flow(2);
        QVERIFY(flow.canPace(client(1), "a", "s"));
        QVERIFY(flow.acknowledge(client(1), "a", "s", 1));
        QVERIFY(flow.acknowledge(client(1), "b", "s", 1));
        // Two are paced: a third is not, what it paces already still is, and another
        // client is not held back.
        QVERIFY(!flow.canPace(client(1), "a", "t"));
        QVERIFY(flow.canPace(client(1), "a", "s"));
        QVERIFY(flow.canPace(client(2), "a", "t"));
        flow.acknowledge(client(1), "a", "s", std::nullopt);
        QVERIFY(flow.canPace(client(1), "a", "t"));
        flow.acknowledge(client(1), "a", "t", 5);
        // A session that closes, or that the agent no longer has, no longer counts.
        flow.removeSession("a", "t");
        QVERIFY(flow.canPace(client(1), "a", "u"));
        flow.acknowledge(client(1), "a", "u", 5);
        flow.acknowledge(client(2), "a", "v", 5);
        flow.acknowledge(client(2), "a", "w", 5);
        QVERIFY(!flow.canPace(client(2), "a", "x"));
        flow.keepSessions("a", [](const QString& sessionId) { return sessionId == QLatin1String("v"); });
        QCOMPARE(flow.windowsOf("a").size(), 1);
        QCOMPARE(flow.windowsOf("a").first().sessionId, QStringLiteral("v"));
        QCOMPARE(flow.windowsOf("b").size(), 1);
        QVERIFY(flow.canPace(client(1), "a", "x"));
        QVERIFY(flow.canPace(client(2), "a", "x"));
        QCOMPARE(flow.removeClient(client(1)).size(), 1); // b/s goes free
        QCOMPARE(flow.windowsOf("b").size(), 0);
    }

    void countsTheMemoryItsBlocksHoldAndLetsTheOldestGoOnDemand()
    {
        EventLog log({1024 * 1024 * 1024, 60'000});
        QCOMPARE(log.memory(), 0);
        const QByteArray frame(1000, 'x');
        log.append(0, 1, frame);
        // A message in a block holds the whole block.
        QCOMPARE(log.memory(), EventLog::kEntryOverhead + EventLog::kBlockSize);
        for (qint64 seq = 2; seq <= 300; ++seq)
            log.append(0, seq, frame);
        QCOMPARE(log.memory(), 300 * EventLog::kEntryOverhead + 2 * EventLog::kBlockSize);
        // Terminal output is kept aside, at its own size.
        log.append(0, 301, QByteArray(5000, 't'), "\"s\"");
        QCOMPARE(log.memory(), 301 * EventLog::kEntryOverhead + 5000 + 2 * EventLog::kBlockSize);
        QVERIFY(log.dropOldest());
        QCOMPARE(log.lostThrough(), 1);
        QCOMPARE(keptAfter(log, 0).first(), 2);
        // 262 messages fill a block; once they are gone the block is kept as the spare.
        while (keptAfter(log, 0).first() <= 263)
            log.dropOldest();
        QCOMPARE(log.memory(), 38 * EventLog::kEntryOverhead + 5000 + 2 * EventLog::kBlockSize);
        while (log.dropOldest()) {
        }
        QCOMPARE(log.memory(), 0);
        QCOMPARE(log.lostThrough(), 301);
        QVERIFY(!log.dropOldest());
    }
};

QTEST_GUILESS_MAIN(TstRelayHistory)
#include "tst_relay_history.moc"
