// The agent's record of its newest tasks' output, in a real folder.
#include "execution/task_output_store.h"
#include "support/loopback_server.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

KeptTask kept(const QString& taskId)
{
    KeptTask task;
    task.taskId = taskId;
    task.kind = QStringLiteral("shell");
    task.projectPath = QStringLiteral("App");
    return task;
}

// Reads and waits for the answer.
OutputPage readNow(TaskOutputStore& store, const QString& taskId, std::optional<qint64> from, int count,
                   const QString& match = {})
{
    std::optional<OutputPage> page;
    store.read(taskId, from, count, match, [&](const OutputPage& read) { page = read; });
    if (!waitUntil([&] { return page.has_value(); }))
        return {};
    return *page;
}

} // namespace

class TstTaskOutputStore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void numbersLinesAndReadsThemBack()
    {
        QTemporaryDir folder;
        TaskOutputStore store(folder.path() + QStringLiteral("/out"), 20, 1 << 20);
        store.begin(kept(QStringLiteral("t1")));
        QCOMPARE(store.append(QStringLiteral("other"), u"x"), std::nullopt);
        for (int i = 1; i <= 25000; ++i)
            QCOMPARE(store.append(QStringLiteral("t1"), QString::number(i)), std::optional<qint64>(i));
        QVERIFY(store.append(QStringLiteral("t1"), u"é \"quoted\" ✓").has_value());

        // Read while it runs: the lines waiting in memory are written first.
        OutputPage page = readNow(store, QStringLiteral("t1"), 24999, 5);
        QCOMPARE(page.from, std::optional<qint64>(24999));
        QCOMPARE(page.lines, (QStringList{u"24999"_qs, u"25000"_qs, u"é \"quoted\" ✓"_qs}));
        QCOMPARE(page.total, 25001);
        QVERIFY(!page.ended);

        // The newest lines, without a first line.
        page = readNow(store, QStringLiteral("t1"), std::nullopt, 2);
        QCOMPARE(page.from, std::optional<qint64>(25000));
        QCOMPARE(page.lines.size(), 2);

        store.end(QStringLiteral("t1"), QStringLiteral("finished"), 0);
        QCOMPARE(store.append(QStringLiteral("t1"), u"late"), std::nullopt);
        page = readNow(store, QStringLiteral("t1"), 1, 3);
        QCOMPARE(page.lines, (QStringList{u"1"_qs, u"2"_qs, u"3"_qs}));
        QVERIFY(page.ended);

        // A read gives at most 10000 lines.
        page = readNow(store, QStringLiteral("t1"), 1, 50000);
        QCOMPARE(page.lines.size(), TaskOutputStore::kMaxReadLines);
        QCOMPARE(page.lines.last(), QStringLiteral("10000"));
    }

    void remembersATaskCancelledAtItsTimeLimit()
    {
        QTemporaryDir folder;
        {
            TaskOutputStore store(folder.path(), 20, 1 << 20);
            store.begin(kept(QStringLiteral("limit")));
            store.markTimedOut(QStringLiteral("other"));
            store.markTimedOut(QStringLiteral("limit"));
            store.end(QStringLiteral("limit"), QStringLiteral("cancelled"), 15);
            // Marked, but it ended otherwise before the stop took: no time-out.
            store.begin(kept(QStringLiteral("raced")));
            store.markTimedOut(QStringLiteral("raced"));
            store.end(QStringLiteral("raced"), QStringLiteral("finished"), 0);
            store.begin(kept(QStringLiteral("asked")));
            store.end(QStringLiteral("asked"), QStringLiteral("cancelled"), 15);
        }
        // Kept across a restart of the agent.
        TaskOutputStore store(folder.path(), 20, 1 << 20);
        QList<bool> timedOut;
        for (const KeptTask& task : store.tasks())
            timedOut.append(task.timedOut);
        QCOMPARE(timedOut, (QList<bool>{false, false, true}));
    }

    void findsLinesThatHoldAText()
    {
        QTemporaryDir folder;
        TaskOutputStore store(folder.path(), 20, 1 << 20);
        store.begin(kept(QStringLiteral("t")));
        for (const char* line : {"Compiling a.c", "warning: unused x", "Compiling b.c", "WARNING: deprecated", "done"})
            store.append(QStringLiteral("t"), QString::fromUtf8(line));
        store.end(QStringLiteral("t"), QStringLiteral("finished"), 0);
        OutputPage page = readNow(store, QStringLiteral("t"), std::nullopt, 10, QStringLiteral("Warning"));
        QCOMPARE(page.from, std::nullopt);
        QCOMPARE(page.lines, (QStringList{u"warning: unused x"_qs, u"WARNING: deprecated"_qs}));
        QCOMPARE(page.numbers, (QList<qint64>{2, 4}));
        // From a line on, and at most so many.
        page = readNow(store, QStringLiteral("t"), 3, 1, QStringLiteral("warning"));
        QCOMPARE(page.numbers, (QList<qint64>{4}));
        page = readNow(store, QStringLiteral("t"), 1, 10, QStringLiteral("nowhere"));
        QVERIFY(page.lines.isEmpty());
        QCOMPARE(page.total, 5);
    }

    void saysWhenNothingIsKept()
    {
        QTemporaryDir folder;
        TaskOutputStore store(folder.path(), 20, 1 << 20);
        const OutputPage page = readNow(store, QStringLiteral("gone"), 1, 10);
        QCOMPARE(page.error, QStringLiteral("no output is kept for task gone"));
    }

    void keepsTheNewestTasksWithinTheirBounds()
    {
        QTemporaryDir folder;
        TaskOutputStore store(folder.path(), 3, 1 << 20);
        for (int i = 1; i <= 5; ++i) {
            const QString id = QStringLiteral("t%1").arg(i);
            store.begin(kept(id));
            store.append(id, QString(QStringLiteral("line of ") + id));
            store.end(id, QStringLiteral("failed"), 2);
        }
        QStringList ids;
        for (const KeptTask& task : store.tasks())
            ids.append(task.taskId);
        QCOMPARE(ids, (QStringList{u"t5"_qs, u"t4"_qs, u"t3"_qs}));
        QCOMPARE(QDir(folder.path()).entryList({QStringLiteral("*.log")}).size(), 3);
        const KeptTask newest = store.tasks().first();
        QCOMPARE(newest.status, QStringLiteral("failed"));
        QCOMPARE(newest.exitCode, std::optional<int>(2));
        QCOMPARE(newest.keptLines, 1);
        QVERIFY(newest.startedAt > 0 && newest.endedAt >= newest.startedAt);

        // Bytes: a task that passes the bound keeps its first lines, and the next task
        // makes room by letting the oldest go.
        store.setBounds(10, 100);
        store.begin(kept(QStringLiteral("big")));
        for (int i = 0; i < 20; ++i)
            QCOMPARE(store.append(QStringLiteral("big"), QString(9, QLatin1Char('x'))), std::optional<qint64>(i + 1));
        store.end(QStringLiteral("big"), QStringLiteral("finished"), 0);
        const KeptTask big = store.tasks().first();
        QCOMPARE(big.lines, 20);
        QCOMPARE(big.keptLines, 6);
        const OutputPage page = readNow(store, QStringLiteral("big"), 1, 100);
        QCOMPARE(page.total, big.keptLines);
        QCOMPARE(page.lines.size(), big.keptLines);
        QCOMPARE(big.bytes, 60); // 33 bytes of the three before, and six lines of ten
        // Over the bound now: the oldest go until the rest are within it.
        store.setBounds(10, 90);
        store.begin(kept(QStringLiteral("next")));
        ids.clear();
        for (const KeptTask& task : store.tasks())
            ids.append(task.taskId);
        QCOMPARE(ids, (QStringList{u"next"_qs, u"big"_qs, u"t5"_qs, u"t4"_qs}));
    }

    void aTaskRunningWhenTheAgentStoppedIsLost()
    {
        QTemporaryDir folder;
        {
            TaskOutputStore store(folder.path(), 20, 1 << 20);
            store.begin(kept(QStringLiteral("run")));
            store.append(QStringLiteral("run"), u"before the end");
        }
        TaskOutputStore again(folder.path(), 20, 1 << 20);
        const std::optional<KeptTask> task = again.task(QStringLiteral("run"));
        QVERIFY(task);
        QCOMPARE(task->status, QStringLiteral("lost"));
        QVERIFY(task->endedAt >= task->startedAt);
        QCOMPARE(readNow(again, QStringLiteral("run"), 1, 5).lines, QStringList{u"before the end"_qs});
        QFile list(folder.path() + QStringLiteral("/tasks.json"));
        QVERIFY(list.open(QIODevice::ReadOnly));
        QCOMPARE(QJsonDocument::fromJson(list.readAll())
                     .object()
                     .value(QStringLiteral("tasks"))
                     .toArray()
                     .first()
                     .toObject()
                     .value(QStringLiteral("status"))
                     .toString(),
                 QStringLiteral("lost"));
    }

    void aTaskIdNeverNamesAFileOutsideTheFolder()
    {
        QTemporaryDir folder;
        const QString inner = folder.path() + QStringLiteral("/inner");
        TaskOutputStore store(inner, 20, 1 << 20);
        store.begin(kept(QStringLiteral("../../escape")));
        store.append(QStringLiteral("../../escape"), u"x");
        store.end(QStringLiteral("../../escape"), QStringLiteral("finished"), 0);
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files), QStringList());
        QCOMPARE(QDir(inner).entryList({QStringLiteral("*.log")}).size(), 1);
    }
};

QTEST_GUILESS_MAIN(TstTaskOutputStore)
#include "tst_task_output_store.moc"
