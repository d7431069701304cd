#include "base/diag.h"
#include "support/agent_fixture.h"
#include "support/test_support.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

// A JSON number as text, for values QJsonObject cannot carry exactly (1e300 is fine,
// but the frames are written by hand so that every shape reaches the agent as sent).
QString assignFrame(const QString& taskId, const QString& timeoutSec)
{
    return QStringLiteral(R"({"type":"task.assign","taskId":"%1","payload":{"action":"shell","command":"true",)"
                          R"("projectPath":"/nowhere","timeoutSec":%2}})")
        .arg(taskId, timeoutSec);
}

// Frames an agent must survive: decodable (a frame whose "taskId" is not a string or
// whose "payload" is not an object makes the agent reconnect, as the protocol says), but
// with every kind of wrong, huge or deep member. None of them starts a process (every
// project path is missing).
class FrameGenerator {
public:
    explicit FrameGenerator(quint32 seed) : m_random(seed) {}

    QString next()
    {
        static const QStringList types{
            QStringLiteral("task.assign"),     QStringLiteral("task.cancel"),     QStringLiteral("task.approval"),
            QStringLiteral("terminal.attach"), QStringLiteral("terminal.input"),  QStringLiteral("terminal.complete"),
            QStringLiteral("terminal.resize"), QStringLiteral("terminal.signal"), QStringLiteral("terminal.close"),
            QStringLiteral("agent.hello"),     QStringLiteral("no.such.type"),    QString(),
        };
        QString frame = QStringLiteral("{\"type\":") + jsonString(types.at(pick(types.size())));
        if (pick(4) != 0)
            frame += QStringLiteral(",\"taskId\":") + (pick(5) == 0 ? QStringLiteral("null") : jsonString(word()));
        if (pick(6) != 0) {
            frame += QStringLiteral(",\"payload\":{");
            static const QStringList keys{
                QStringLiteral("action"),    QStringLiteral("projectPath"),    QStringLiteral("timeoutSec"),
                QStringLiteral("system"),    QStringLiteral("mode"),           QStringLiteral("approvalMode"),
                QStringLiteral("prompt"),    QStringLiteral("conversationId"), QStringLiteral("command"),
                QStringLiteral("sessionId"), QStringLiteral("cols"),           QStringLiteral("rows"),
                QStringLiteral("cursor"),    QStringLiteral("line"),           QStringLiteral("dataBase64"),
                QStringLiteral("signal"),    QStringLiteral("decision"),       QStringLiteral("replace"),
            };
            const int count = pick(8);
            for (int i = 0; i < count; ++i) {
                const QString key = keys.at(pick(keys.size()));
                // Project paths never exist, so no task or terminal ever starts.
                const QString value = key == QLatin1String("projectPath") && pick(2) == 0
                                          ? jsonString(QStringLiteral("/nowhere/") + word())
                                          : anyValue(3);
                frame += (i ? QStringLiteral(",") : QString()) + jsonString(key) + QLatin1Char(':') + value;
            }
            frame += QLatin1Char('}');
        }
        return frame + QLatin1Char('}');
    }

private:
    int pick(int n) { return int(m_random.bounded(n)); }

    static QString jsonString(const QString& text)
    {
        const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
        return QString::fromUtf8(array.mid(1, array.size() - 2));
    }

    QString word()
    {
        switch (pick(4)) {
        case 0: return QString();
        case 1: return QString(100000 + pick(1000), QLatin1Char('x'));
        case 2: return QStringLiteral("line\nbreak\r\u2028\u0000end");
        default: return QStringLiteral("t") + QString::number(pick(1000));
        }
    }

    QString anyValue(int depth)
    {
        static const QStringList numbers{
            QStringLiteral("1e300"),
            QStringLiteral("-1e300"),
            QStringLiteral("1e19"),
            QStringLiteral("9223372036854775808"),
            QStringLiteral("-9223372036854775809"),
            QStringLiteral("65536"),
            QStringLiteral("-1"),
            QStringLiteral("0"),
            QStringLiteral("80.9"),
            QStringLiteral("1e-300"),
            QStringLiteral("4294967296"),
            QStringLiteral("-0"),
        };
        switch (pick(depth > 0 ? 8 : 5)) {
        case 0: return numbers.at(pick(numbers.size()));
        case 1: return jsonString(word());
        case 2: return pick(2) ? QStringLiteral("true") : QStringLiteral("false");
        case 3: return QStringLiteral("null");
        case 4: return numbers.at(pick(numbers.size()));
        case 5: {
            // Deep nesting, well inside what a JSON parser takes.
            const int levels = 1 + pick(400);
            return QString(levels, QLatin1Char('[')) + anyValue(0) + QString(levels, QLatin1Char(']'));
        }
        case 6:
            return QStringLiteral("[") + anyValue(depth - 1) + QStringLiteral(",") + anyValue(depth - 1) +
                   QStringLiteral("]");
        default: return QStringLiteral("{\"a\":") + anyValue(depth - 1) + QStringLiteral("}");
        }
    }

    QRandomGenerator m_random;
};

} // namespace

class TstCommandDispatch : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void timeoutOutOfRangeFailsTheTaskAndTheAgentGoesOn_data()
    {
        QTest::addColumn<QString>("number");
        QTest::addColumn<QString>("printed");
        QTest::newRow("1e300") << QStringLiteral("1e300") << QStringLiteral("1e+300");
        QTest::newRow("2^63") << QStringLiteral("9223372036854775808") << QStringLiteral("9223372036854776000");
        QTest::newRow("1e19") << QStringLiteral("1e19") << QStringLiteral("1e+19");
        QTest::newRow("-1e300") << QStringLiteral("-1e300") << QStringLiteral("-1e+300");
    }
    void timeoutOutOfRangeFailsTheTaskAndTheAgentGoesOn()
    {
        QFETCH(QString, number);
        QFETCH(QString, printed);
        AgentFixture f;
        QVERIFY(f.connect());
        DiagRecorder log;
        f.server.sendText(assignFrame(QStringLiteral("t1"), number));
        const std::optional<QJsonObject> failed =
            f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("t1"));
        QVERIFY2(failed, qPrintable(f.server.trace()));
        QCOMPARE(*failed, (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.failed")},
                                       {QStringLiteral("taskId"), QStringLiteral("t1")},
                                       {QStringLiteral("error"),
                                        QString(QStringLiteral("timeoutSec is out of range: ") + printed)},
                                       {QStringLiteral("errorCode"), QStringLiteral("AGENT_CONFIG_INVALID")},
                                       {QStringLiteral("exitCode"), 1}}));
        QCOMPARE(
            log.texts(),
            QStringList{QStringLiteral("task.assign failed taskId=t1 error=timeoutSec is out of range: ") + printed});
        QVERIFY(!f.runtime->currentTaskId());
        // The agent goes on: the next task runs.
        f.shell(QStringLiteral("t2"), QStringLiteral("echo alive"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t2")));
    }

    void terminalNumbersOutOfRangeAreRefused_data()
    {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<QString>("message");
        QTest::newRow("cols") << QStringLiteral(
                                     R"({"type":"terminal.resize","payload":{"sessionId":"s","cols":1e300,"rows":24}})")
                              << QStringLiteral("cols is out of range: 1e+300");
        QTest::newRow("rows") << QStringLiteral(
                                     R"({"type":"terminal.resize","payload":{"sessionId":"s","cols":80,"rows":-1e19}})")
                              << QStringLiteral("rows is out of range: -1e+19");
        QTest::newRow("cursor")
            << QStringLiteral(R"({"type":"terminal.complete","payload":{"sessionId":"s","line":"ls","cursor":1e300}})")
            << QStringLiteral("cursor is out of range: 1e+300");
    }
    void terminalNumbersOutOfRangeAreRefused()
    {
        QFETCH(QString, frame);
        QFETCH(QString, message);
        AgentFixture f;
        QVERIFY(f.connect());
        DiagRecorder log;
        f.server.sendText(frame);
        const std::optional<QJsonObject> error = f.server.waitForType(QStringLiteral("terminal.error"));
        QVERIFY2(error, qPrintable(f.server.trace()));
        QCOMPARE(*error, (QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.error")},
                                      {QStringLiteral("sessionId"), QStringLiteral("s")},
                                      {QStringLiteral("projectPath"), QString()},
                                      {QStringLiteral("error"), message},
                                      {QStringLiteral("message"), message}}));
        QCOMPARE(log.texts(),
                 QStringList{QStringLiteral("terminal.error sessionId=s projectPath= message=") + message});
    }

    void hugeValuesAreCutAndLineBreaksEscapedInTheLog()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        DiagRecorder log;
        const QString command = QStringLiteral("true #") + QString(15 * 1024 * 1024, QLatin1Char('x'));
        f.assign(QStringLiteral("t\r\nforged"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                            {QStringLiteral("command"), command},
                                                            {QStringLiteral("projectPath"), f.repo.path()}});
        // No shell takes one argument of 15 MiB; what matters here is the log.
        const std::optional<QJsonObject> failed =
            f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("t\r\nforged"));
        QVERIFY2(failed, qPrintable(f.server.trace().right(500)));
        QCOMPARE(failed->value(QStringLiteral("error")).toString(),
                 QStringLiteral("failed to launch process: execve: Argument list too long"));
        const QString cut =
            QStringLiteral("true #") + QString(1018, QLatin1Char('x')) + QStringLiteral("\u2026 (15727622 more bytes)");
        const QStringList texts = log.texts();
        QCOMPARE(texts.at(0), QStringLiteral("task.assign taskId=t\\r\\nforged action=shell projectPath=") +
                                  f.repo.path() + QStringLiteral(" system= mode= approvalMode= timeoutSec=1200"));
        QCOMPARE(texts.at(1),
                 QStringLiteral("resolveShellExecution projectPath=%1 workingDir=%1 command=").arg(f.repo.path()) +
                     cut);
        QCOMPARE(texts.at(2),
                 QStringLiteral("task.assign resolved shell workingDir=%1 command=").arg(f.repo.path()) + cut);
        for (const QString& text : texts)
            QVERIFY2(text.size() < 2200, qPrintable(text.left(200)));
    }

    void thousandsOfBadFramesLeaveTheAgentAliveAndAnswering()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        FrameGenerator frames(20261123);
        const int count = 3000;
        for (int i = 0; i < count; ++i)
            f.server.sendText(frames.next());
        // Frames are handled in order: once this task has run, every frame before it was.
        f.shell(QStringLiteral("after-the-flood"), QStringLiteral("echo alive"));
        const std::optional<QJsonObject> finished =
            f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("after-the-flood"), 120000);
        QVERIFY2(finished, qPrintable(f.server.trace().right(2000)));
        QCOMPARE(f.server.connectionCount(), 1); // never dropped the connection
        QVERIFY(childProcesses().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TstCommandDispatch)
#include "tst_command_dispatch.moc"
