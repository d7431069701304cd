// What the agent keeps of what it says: seqs, confirmations, the wait while no server
// listens, and its bound.
#include "agent/outbox.h"
#include "protocol/messages.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace brinmoor;

namespace {

constexpr qint64 kFirst = 1'700'000'000'000'000;

QString stream(qint64 first, qint64 next)
{
    return QString::fromUtf8(QJsonDocument(Messages::agentStream(first, next)).toJson(QJsonDocument::Compact));
}

QString logLine(const QString& taskId, const QString& line)
{
    return Messages::taskLogText(taskId, line);
}

qint64 memory(const QString& text)
{
    return text.size() * qint64(sizeof(QChar));
}

} // namespace

class TstOutbox : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void numbersWhatItWritesAndSendsAgainWhatWasNotConfirmed()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.add("a");
        outbox.add("b");
        QCOMPARE(outbox.unsentCount(), 2);
        outbox.open(0, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst), "a", "b"}));
        outbox.add("c");
        QCOMPARE(written.last(), QStringLiteral("c"));
        QCOMPARE(outbox.nextSeq(), kFirst + 3);
        outbox.acknowledge(kFirst + 1);
        QCOMPARE(outbox.unconfirmedCount(), 1);
        // The connection goes: "c" waits with its seq, "d" for one. The server is back with
        // what it confirmed.
        outbox.close();
        outbox.add("d");
        written.clear();
        outbox.open(kFirst + 1, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst + 2), "c", "d"}));
        QCOMPARE(outbox.nextSeq(), kFirst + 4);
        // A server that has "c" already says so in its hello.
        outbox.close();
        written.clear();
        outbox.open(kFirst + 2, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst + 3), "d"}));
        outbox.acknowledge(kFirst + 3);
        QCOMPARE(outbox.unconfirmedCount(), 0);
    }

    void aServerThatLostWhatItConfirmedGetsItAgain()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.open(0, [&](const QString& text) { written.append(text); });
        outbox.add("a");
        outbox.add("b");
        outbox.add("c");
        outbox.acknowledge(kFirst + 2);
        QCOMPARE(outbox.unconfirmedCount(), 0);
        QCOMPARE(outbox.unconfirmedBytes(), 0);
        QCOMPARE(outbox.confirmedKeptBytes(), 3);
        // Restarted, the server has only what it got before "b".
        outbox.close();
        written.clear();
        outbox.open(kFirst, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst + 1), "b", "c"}));
        // Restarted again, it has nothing at all.
        outbox.acknowledge(kFirst + 2);
        outbox.close();
        written.clear();
        outbox.open(0, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst), "a", "b", "c"}));
        // The same server again: nothing goes twice.
        outbox.acknowledge(kFirst + 2);
        outbox.close();
        written.clear();
        outbox.open(kFirst + 2, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst + 3)}));
    }

    void keepsOnlyTheNewestConfirmedMessagesUpToABound()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.open(0, [&](const QString& text) { written.append(text); });
        const QString chunk(64 * 1024, QLatin1Char('k'));
        const qsizetype kept = Outbox::kConfirmedKeptBytes / chunk.size();
        for (qsizetype i = 0; i < kept + 10; ++i) {
            outbox.add(chunk + QString::number(i % 10));
            outbox.acknowledge(outbox.nextSeq() - 1);
            QVERIFY(outbox.confirmedKeptBytes() <= Outbox::kConfirmedKeptBytes);
        }
        // Each chunk is one byte longer than its size here: one fewer fits.
        QCOMPARE(outbox.confirmedKeptBytes(), (kept - 1) * (chunk.size() + 1));
        outbox.close();
        written.clear();
        outbox.open(0, [&](const QString& text) { written.append(text); });
        QCOMPARE(written.size(), 1 + kept - 1);
        QCOMPARE(written.first(), stream(kFirst, kFirst + 11));
        QCOMPARE(written.at(1), chunk + QString::number(1));
        QCOMPARE(written.last(), chunk + QString::number(5));
    }

    void seqsGoOnAboveWhatTheServerHas()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.open(kFirst + 50, [&](const QString& text) { written.append(text); });
        outbox.add("x");
        QCOMPARE(written, (QStringList{stream(kFirst + 51, kFirst + 51), "x"}));
        QCOMPARE(outbox.firstSeq(), kFirst + 51);
    }

    void terminalOutputDoesNotWaitForAServer()
    {
        Outbox outbox(kFirst);
        outbox.add("out", QString(), Outbox::Kind::TerminalOutput);
        QCOMPARE(outbox.unsentCount(), 0);
        QStringList written;
        outbox.open(0, [&](const QString& text) { written.append(text); });
        outbox.add("out", QString(), Outbox::Kind::TerminalOutput);
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst), "out"}));
    }

    void aTasksWaitingLinesStayWithinItsBound()
    {
        Outbox outbox(kFirst);
        const QString started = QStringLiteral(R"({"taskId":"t","type":"task.started"})");
        outbox.add(started, "t");
        outbox.add(logLine("other", "kept"), "other", Outbox::Kind::TaskLog);
        QStringList lines;
        for (int i = 0; i < 250'000; ++i)
            lines.append(logLine("t", QStringLiteral("line %1 of a long build").arg(i, 6, 10, QLatin1Char('0'))));
        const qint64 each = memory(lines.first());
        for (const QString& line : std::as_const(lines)) {
            outbox.add(line, "t", Outbox::Kind::TaskLog);
            QVERIFY(outbox.taskBytes("t") <= Outbox::kTaskBytes);
        }
        // As much as fits: one line more would not.
        QVERIFY(outbox.taskBytes("t") > Outbox::kTaskBytes - each - 4);
        const QString finished = QStringLiteral(R"({"exitCode":0,"taskId":"t","type":"task.finished"})");
        outbox.add(finished, "t");
        QVERIFY(outbox.taskBytes("t") <= Outbox::kTaskBytes);
        QStringList written;
        outbox.open(0, [&](const QString& text) { written.append(text); });
        // The dropped lines are the oldest; one line stands where they were.
        const qsizetype kept = written.size() - 5;
        const qsizetype dropped = lines.size() - kept;
        QCOMPARE(written.mid(0, 4),
                 (QStringList{stream(kFirst, kFirst), started, logLine("other", "kept"),
                              logLine("t", QStringLiteral("\u2026 %1 earlier lines dropped while the server could not "
                                                          "be reached (at most 16 MiB of a task's output waits)")
                                               .arg(dropped))}));
        QCOMPARE(written.mid(4, kept), lines.mid(dropped));
        QCOMPARE(written.last(), finished);
        qint64 total = 0;
        for (const QString& text : written.mid(1))
            total += text.contains(QLatin1String("\"taskId\":\"t\"")) ? memory(text) : 0;
        QVERIFY(total <= Outbox::kTaskBytes);
    }

    void aPlainServerHearsEachMessageOnceAndNothingIsKept()
    {
        Outbox outbox(kFirst);
        QStringList written;
        // Said before any server was heard of: kept for a server that may confirm.
        outbox.add("before", "t", Outbox::Kind::TaskLog);
        outbox.wait();
        outbox.add("while learning", "t", Outbox::Kind::TaskLog);
        outbox.add("screen", QString(), Outbox::Kind::TerminalOutput);
        QVERIFY(written.isEmpty());
        outbox.openPlain([&](const QString& text) { written.append(text); });
        // No "agent.stream", nothing from before the socket, what was said since once.
        QCOMPARE(written, (QStringList{"while learning", "screen"}));
        QVERIFY(!outbox.keeps());
        outbox.add("live", "t", Outbox::Kind::TaskLog);
        QCOMPARE(written.last(), QStringLiteral("live"));
        QCOMPARE(outbox.unconfirmedCount(), 0);
        QCOMPARE(outbox.unconfirmedBytes(), 0);
        QCOMPARE(outbox.taskBytes("t"), 0);
        // No socket: dropped, and not sent on the next connection either.
        outbox.close();
        outbox.add("lost", "t", Outbox::Kind::TaskLog);
        QCOMPARE(outbox.unsentCount(), 0);
        outbox.wait();
        outbox.close();
        outbox.wait();
        written.clear();
        outbox.openPlain([&](const QString& text) { written.append(text); });
        QVERIFY(written.isEmpty());
    }

    void aServerThatNumbersWithoutConfirmingKeepsNothing()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.wait();
        outbox.open(
            0, [&](const QString& text) { written.append(text); }, false);
        outbox.add("a", "t", Outbox::Kind::TaskLog);
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst), "a"}));
        QCOMPARE(outbox.nextSeq(), kFirst + 1);
        QCOMPARE(outbox.unconfirmedCount(), 0);
        QCOMPARE(outbox.taskBytes("t"), 0);
        outbox.close();
        outbox.add("b");
        QCOMPARE(outbox.unsentCount(), 0);
    }

    void aServerThatConfirmsAfterAPlainOneKeepsAgain()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.wait();
        outbox.openPlain([&](const QString& text) { written.append(text); });
        outbox.close();
        outbox.wait();
        outbox.add("learning");
        written.clear();
        outbox.open(0, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst), "learning"}));
        QVERIFY(outbox.keeps());
        QCOMPARE(outbox.unconfirmedCount(), 1);
        outbox.close();
        outbox.add("waits");
        QCOMPARE(outbox.unsentCount(), 1);
    }

    void tellsHowManyLinesWereDropped()
    {
        QCOMPARE(Outbox::droppedLinesText(1),
                 QStringLiteral("\u2026 1 earlier line dropped while the server could not be reached (at most 16 MiB "
                                "of a task's output waits)"));
        QCOMPARE(Outbox::droppedLinesText(2),
                 QStringLiteral("\u2026 2 earlier lines dropped while the server could not be reached (at most 16 MiB "
                                "of a task's output waits)"));
    }

    void linesWrittenBeforeTheBoundAreNeverDropped()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.open(0, [&](const QString& text) { written.append(text); });
        outbox.add(logLine("t", "sent"), "t", Outbox::Kind::TaskLog);
        outbox.close();
        const QString big = logLine("t", QString(1024 * 1024, QLatin1Char('x')));
        for (int i = 0; i < 10; ++i)
            outbox.add(big, "t", Outbox::Kind::TaskLog);
        written.clear();
        outbox.open(0, [&](const QString& text) { written.append(text); });
        // The line the server may have already goes again; two big ones gave way to the notice.
        QCOMPARE(written.mid(0, 3), (QStringList{stream(kFirst, kFirst), logLine("t", "sent"),
                                                 logLine("t", Outbox::droppedLinesText(3))}));
        QCOMPARE(written.size(), 3 + 7);
    }

    void keepsWhatAServerNeverConfirmsOnlyUpToABound()
    {
        Outbox outbox(kFirst);
        qsizetype writes = 0;
        outbox.open(0, [&](const QString&) { ++writes; });
        const QString chunk(64 * 1024, QLatin1Char('y'));
        for (int i = 0; i < 300; ++i)
            outbox.add(chunk);
        QCOMPARE(writes, 301);
        // Kept as UTF-8: a byte a character here.
        QCOMPARE(outbox.unconfirmedCount(), Outbox::kUnconfirmedBytes / chunk.size());
        QCOMPARE(outbox.unconfirmedBytes(), Outbox::kUnconfirmedBytes);
    }

    void keepsWhatIsUnconfirmedAsItsUtf8()
    {
        Outbox outbox(kFirst);
        QStringList written;
        outbox.open(0, [&](const QString& text) { written.append(text); });
        const QString text = QStringLiteral("{\"line\":\"gr\u00fc\u00dfe \U0001F600\"}");
        outbox.add(text);
        outbox.add(QStringLiteral("b"));
        QCOMPARE(outbox.unconfirmedBytes(), text.toUtf8().size() + 1);
        outbox.acknowledge(kFirst);
        QCOMPARE(outbox.unconfirmedBytes(), 1);
        QCOMPARE(outbox.confirmedKeptBytes(), text.toUtf8().size());
        outbox.add(text);
        outbox.close();
        written.clear();
        outbox.open(kFirst, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst + 1), QStringLiteral("b"), text}));
        // What was confirmed goes again, as it was, to a server that lost it.
        outbox.close();
        written.clear();
        outbox.open(0, [&](const QString& text) { written.append(text); });
        QCOMPARE(written, (QStringList{stream(kFirst, kFirst), text, QStringLiteral("b"), text}));
    }
};

QTEST_GUILESS_MAIN(TstOutbox)
#include "tst_outbox.moc"
