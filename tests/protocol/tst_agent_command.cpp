#include "protocol/agent_command.h"
#include "protocol/task_assignment.h"

#include <QTest>

using namespace brinmoor;

namespace {

AgentCommand decoded(const QByteArray& frame)
{
    QString error;
    std::optional<AgentCommand> command = AgentCommand::decode(frame, &error);
    if (!command)
        qFatal("frame did not decode: %s", qPrintable(error));
    return *command;
}

QString decodeError(const QByteArray& frame)
{
    QString error;
    if (AgentCommand::decode(frame, &error))
        return QStringLiteral("(decoded)");
    return error;
}

} // namespace

class TstAgentCommand : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void decodesTypeTaskIdAndPayload()
    {
        const AgentCommand command =
            decoded(R"({"type":"task.assign","taskId":"t1","payload":{"action":"shell","timeoutSec":30}})");
        QCOMPARE(command.type, QStringLiteral("task.assign"));
        QCOMPARE(command.taskId, std::optional<QString>(QStringLiteral("t1")));
        QCOMPARE(command.stringMember(QStringLiteral("action")), std::optional<QString>(QStringLiteral("shell")));
        QCOMPARE(command.intMember(QStringLiteral("timeoutSec")), std::optional<qint64>(30));
    }

    void taskIdAndPayloadMayBeAbsentOrNull()
    {
        const AgentCommand bare = decoded(R"({"type":"agent.hello"})");
        QCOMPARE(bare.taskId, std::nullopt);
        QCOMPARE(bare.payload, std::nullopt);
        QCOMPARE(bare.member(QStringLiteral("x")), nullptr);
        const AgentCommand nulls = decoded(R"({"type":"agent.hello","taskId":null,"payload":null})");
        QCOMPARE(nulls.taskId, std::nullopt);
        QCOMPARE(nulls.payload, std::nullopt);
    }

    void binaryFrameBytesDecodeTheSame()
    {
        const QByteArray frame = QByteArray(R"({"type":"task.cancel","taskId":"é"})");
        QCOMPARE(decoded(frame).taskId, std::optional<QString>(QStringLiteral("é")));
    }

    void unknownTypeStillDecodes()
    {
        QCOMPARE(decoded(R"({"type":"something.new","extra":[1]})").type, QStringLiteral("something.new"));
    }

    void frameThatIsNotJsonFailsToDecode()
    {
        QCOMPARE(decodeError("hello"), QStringLiteral("frame is not valid JSON: illegal value"));
        QCOMPARE(decodeError("[1,2]"), QStringLiteral("frame is not a JSON object"));
        QCOMPARE(decodeError(R"({"taskId":"t"})"), QStringLiteral("frame has no string \"type\""));
        QCOMPARE(decodeError(R"({"type":7})"), QStringLiteral("frame has no string \"type\""));
        QCOMPARE(decodeError(R"({"type":"x","taskId":5})"),
                 QStringLiteral("frame has a \"taskId\" that is not a string"));
        QCOMPARE(decodeError(R"({"type":"x","payload":[1]})"),
                 QStringLiteral("frame has a \"payload\" that is not an object"));
    }

    void taskAssignWithoutActionIsBuildIos()
    {
        const std::optional<TaskAssignment> task =
            TaskAssignment::from(decoded(R"({"type":"task.assign","taskId":"t","payload":{"projectPath":"app"}})"));
        QVERIFY(task);
        QCOMPARE(task->action, QStringLiteral("build_ios"));
        QCOMPARE(task->projectPath, QStringLiteral("app"));
    }

    void taskAssignWithoutPayloadUsesDefaults()
    {
        const std::optional<TaskAssignment> task =
            TaskAssignment::from(decoded(R"({"type":"task.assign","taskId":"t"})"));
        QVERIFY(task);
        QCOMPARE(task->action, QStringLiteral("build_ios"));
        QCOMPARE(task->timeoutSec, qint64(1200));
        QCOMPARE(task->system, std::nullopt);
        QCOMPARE(task->approvalMode, std::nullopt);
        QCOMPARE(task->prompt, QString());
    }

    void taskAssignWithoutTaskIdIsIgnored()
    {
        QVERIFY(!TaskAssignment::from(decoded(R"({"type":"task.assign","payload":{"action":"shell"}})")));
    }

    void timeoutSecAsStringOrAbsentIs1200()
    {
        QCOMPARE(TaskAssignment::from(decoded(R"({"type":"task.assign","taskId":"t","payload":{"timeoutSec":"30"}})"))
                     ->timeoutSec,
                 qint64(1200));
        QCOMPARE(TaskAssignment::from(decoded(R"({"type":"task.assign","taskId":"t","payload":{"timeoutSec":30.7}})"))
                     ->timeoutSec,
                 qint64(30));
    }

    void taskAssignReadsEveryMember()
    {
        const std::optional<TaskAssignment> task = TaskAssignment::from(decoded(
            R"({"type":"task.assign","taskId":"t9","payload":{"action":"chat","projectPath":"/p","timeoutSec":5,
                "system":"claude","mode":"plan","approvalMode":"none","prompt":"hi","conversationId":"c1",
                "command":"ls"}})"));
        QVERIFY(task);
        QCOMPARE(task->taskId, QStringLiteral("t9"));
        QCOMPARE(task->action, QStringLiteral("chat"));
        QCOMPARE(task->timeoutSec, qint64(5));
        QCOMPARE(task->system, std::optional<QString>(QStringLiteral("claude")));
        QCOMPARE(task->mode, std::optional<QString>(QStringLiteral("plan")));
        QCOMPARE(task->approvalMode, std::optional<QString>(QStringLiteral("none")));
        QCOMPARE(task->prompt, QStringLiteral("hi"));
        QCOMPARE(task->conversationId, QStringLiteral("c1"));
        QCOMPARE(task->command, QStringLiteral("ls"));
    }

    void terminalReplaceAcceptsBooleanAndYesTrueStrings_data()
    {
        QTest::addColumn<QByteArray>("replace");
        QTest::addColumn<bool>("expected");
        QTest::newRow("true") << QByteArray("true") << true;
        QTest::newRow("false") << QByteArray("false") << false;
        QTest::newRow("\"TRUE\"") << QByteArray("\"TRUE\"") << true;
        QTest::newRow("\"Yes\"") << QByteArray("\"Yes\"") << true;
        QTest::newRow("\"no\"") << QByteArray("\"no\"") << false;
        QTest::newRow("1") << QByteArray("1") << false;
        QTest::newRow("absent") << QByteArray() << false;
    }
    void terminalReplaceAcceptsBooleanAndYesTrueStrings()
    {
        QFETCH(QByteArray, replace);
        QFETCH(bool, expected);
        const QByteArray member = replace.isEmpty() ? QByteArray() : ",\"replace\":" + replace;
        const AgentCommand command = decoded(R"({"type":"terminal.open","payload":{"sessionId":"s")" + member + "}}");
        QCOMPARE(terminalReplaceFlag(command), expected);
    }
};

QTEST_GUILESS_MAIN(TstAgentCommand)
#include "tst_agent_command.moc"
