#include "protocol/messages.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace brinmoor;

namespace {

// "key:kind=value" for each member, sorted by key; integers and doubles are told apart.
QStringList shape(const QJsonObject& message)
{
    QStringList members;
    for (auto it = message.begin(); it != message.end(); ++it) {
        const QJsonValue value = it.value();
        QString kind;
        switch (value.type()) {
        case QJsonValue::String: kind = QStringLiteral("string"); break;
        case QJsonValue::Bool: kind = QStringLiteral("bool"); break;
        case QJsonValue::Double:
            kind = value.toVariant().typeId() == QMetaType::LongLong ? QStringLiteral("int") : QStringLiteral("double");
            break;
        case QJsonValue::Array: kind = QStringLiteral("array"); break;
        case QJsonValue::Object: kind = QStringLiteral("object"); break;
        default: kind = QStringLiteral("other"); break;
        }
        QString text;
        if (value.isArray())
            text = QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
        else
            text = value.toVariant().toString();
        members.append(it.key() + QLatin1Char(':') + kind + QLatin1Char('=') + text);
    }
    return members; // QJsonObject iterates in key order
}

Messages::Proposal sampleProposal()
{
    return {QStringLiteral("P-1"),
            QStringLiteral("sum"),
            QStringLiteral("why"),
            QStringLiteral("diff --git a/x b/x"),
            {QStringLiteral("x"), QStringLiteral("y")}};
}

} // namespace

class TstMessages : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void agentRegister()
    {
        Messages::Registration profile;
        profile.profileId = QStringLiteral("ios-local");
        profile.repoRoot = QStringLiteral("/repo");
        profile.buildTemplate = QStringLiteral("./deploy.sh {{projectArg}}");
        profile.projects = {QStringLiteral("/a/App")};
        profile.actions = {QStringLiteral("build_ios"), QStringLiteral("ai_task"), QStringLiteral("chat"),
                           QStringLiteral("shell"), QStringLiteral("terminal_session")};
        QCOMPARE(shape(Messages::agentRegister(profile)),
                 (QStringList{
                     QStringLiteral(R"(actions:array=["build_ios","ai_task","chat","shell","terminal_session"])"),
                     QStringLiteral("buildTemplate:string=./deploy.sh {{projectArg}}"),
                     QStringLiteral("createProjectRoot:string="),
                     QStringLiteral(R"(profiles:array=["ios-local"])"),
                     QStringLiteral(R"(projects:array=["/a/App"])"),
                     QStringLiteral("repoRoot:string=/repo"),
                     QStringLiteral("supportsApproval:bool=true"),
                     QStringLiteral(R"(taskKinds:array=["build","ai_task","chat","shell","terminal_session"])"),
                     QStringLiteral("type:string=agent.register"),
                 }));
    }

    void createProjectRootIsAStringNeverNull()
    {
        Messages::Registration profile;
        QCOMPARE(Messages::agentRegister(profile).value(QStringLiteral("createProjectRoot")), QJsonValue(QString()));
        profile.createProjectRoot = QStringLiteral("/new");
        QCOMPARE(Messages::agentRegister(profile).value(QStringLiteral("createProjectRoot")),
                 QJsonValue(QStringLiteral("/new")));
    }

    void supportsApprovalAndTaskKindsNeverChange()
    {
        Messages::Registration other;
        other.actions = {QStringLiteral("shell")};
        const QJsonObject message = Messages::agentRegister(other);
        QCOMPARE(message.value(QStringLiteral("supportsApproval")), QJsonValue(true));
        QCOMPARE(message.value(QStringLiteral("taskKinds")).toArray(),
                 (QJsonArray{QStringLiteral("build"), QStringLiteral("ai_task"), QStringLiteral("chat"),
                             QStringLiteral("shell"), QStringLiteral("terminal_session")}));
    }

    void taskMessages_data()
    {
        QTest::addColumn<QJsonObject>("message");
        QTest::addColumn<QStringList>("expected");
        const QString t = QStringLiteral("T1");
        QTest::newRow("task.heartbeat") << Messages::taskHeartbeat(t)
                                        << QStringList{"taskId:string=T1", "type:string=task.heartbeat"};
        QTest::newRow("task.started") << Messages::taskStarted(t)
                                      << QStringList{"taskId:string=T1", "type:string=task.started"};
        QTest::newRow("task.log") << Messages::taskLog(t, QStringLiteral("hello"))
                                  << QStringList{"line:string=hello", "taskId:string=T1", "type:string=task.log"};
        QTest::newRow("task.commentary") << Messages::taskCommentary(t, QStringLiteral("c"))
                                         << QStringList{"replace:bool=true", "taskId:string=T1", "text:string=c",
                                                        "type:string=task.commentary"};
        QTest::newRow("task.chat.chunk") << Messages::taskChatChunk(t, QStringLiteral("C"), QStringLiteral("x"))
                                         << QStringList{"chunk:string=x", "conversationId:string=C", "taskId:string=T1",
                                                        "type:string=task.chat.chunk"};
        QTest::newRow("task.chat.final") << Messages::taskChatFinal(t, QStringLiteral("C"), QStringLiteral("done"))
                                         << QStringList{"conversationId:string=C", "taskId:string=T1",
                                                        "text:string=done", "type:string=task.chat.final"};
        QTest::newRow("task.chat.error") << Messages::taskChatError(t, QStringLiteral("C"),
                                                                    QStringLiteral("command exited with status 2"))
                                         << QStringList{"conversationId:string=C",
                                                        "message:string=command exited with status 2",
                                                        "taskId:string=T1", "type:string=task.chat.error"};
        QTest::newRow("task.finished") << Messages::taskFinished(t)
                                       << QStringList{"exitCode:int=0", "taskId:string=T1",
                                                      "type:string=task.finished"};
        QTest::newRow("task.failed") << Messages::taskFailed(t, QStringLiteral("agent is busy"),
                                                             QStringLiteral("AGENT_BUSY"), 1)
                                     << QStringList{"error:string=agent is busy", "errorCode:string=AGENT_BUSY",
                                                    "exitCode:int=1", "taskId:string=T1", "type:string=task.failed"};
        QTest::newRow("task.cancelled") << Messages::taskCancelled(t, 130)
                                        << QStringList{"exitCode:int=130", "taskId:string=T1",
                                                       "type:string=task.cancelled"};
        QTest::newRow("task.progress") << Messages::taskProgress(t, QStringLiteral("prepare"),
                                                                 QStringLiteral("Preparing proposed changes"), 5)
                                       << QStringList{"message:string=Preparing proposed changes", "percent:int=5",
                                                      "phase:string=prepare", "taskId:string=T1",
                                                      "type:string=task.progress"};
        QTest::newRow("task.artifact") << Messages::taskArtifact(t, QStringLiteral("prompt"), QStringLiteral("p"),
                                                                 QStringLiteral("text/plain"))
                                       << QStringList{"kind:string=prompt", "mimeType:string=text/plain",
                                                      "summary:string=p", "taskId:string=T1",
                                                      "type:string=task.artifact"};
        const QStringList proposal{"proposalCommentary:string=why",    "proposalDiff:string=diff --git a/x b/x",
                                   R"(proposalFiles:array=["x","y"])", "proposalId:string=P-1",
                                   "proposalSummary:string=sum",       "taskId:string=T1"};
        QTest::newRow("task.proposal_ready") << Messages::taskProposalReady(t, sampleProposal())
                                             << (proposal + QStringList{"type:string=task.proposal_ready"});
        QTest::newRow("task.awaiting_approval") << Messages::taskAwaitingApproval(t, sampleProposal())
                                                << (proposal + QStringList{"type:string=task.awaiting_approval"});
    }
    void taskMessages()
    {
        QFETCH(QJsonObject, message);
        QFETCH(QStringList, expected);
        QCOMPARE(shape(message), expected);
    }

    void taskLogTextParsesToTheSameObject_data()
    {
        QTest::addColumn<QString>("line");
        QTest::newRow("plain") << QStringLiteral("hello");
        QTest::newRow("empty") << QString();
        QTest::newRow("quotes and backslashes") << QStringLiteral("say \"hi\" \\ C:\\x");
        QTest::newRow("control characters") << QStringLiteral("a\tb\rc\u0001d\u001be\bf\fg\u007f");
        QTest::newRow("non-ASCII") << QStringLiteral("héllo ✓ 😀 </script>");
    }
    void taskLogTextParsesToTheSameObject()
    {
        QFETCH(QString, line);
        const QString text = Messages::taskLogText(QStringLiteral("T\"1"), line);
        QJsonParseError error;
        const QJsonObject parsed = QJsonDocument::fromJson(text.toUtf8(), &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(parsed, Messages::taskLog(QStringLiteral("T\"1"), line));
    }

    void terminalOutputTextParsesToTheSameObject()
    {
        for (const bool snapshot : {false, true}) {
            const QString data = QStringLiteral("a\r\n\u001b[0m \"q\" ✓");
            const QString text = Messages::terminalOutputText(u"s\"1", u"/p/it's", data, snapshot);
            QCOMPARE(QJsonDocument::fromJson(text.toUtf8()).object(),
                     Messages::terminalOutput(QStringLiteral("s\"1"), QStringLiteral("/p/it's"), data, snapshot));
        }
    }

    void taskLogTextEscapesLikeTheSerializer()
    {
        QCOMPARE(Messages::taskLogText(u"t", u"a\"b\\c\n\u0001"),
                 QStringLiteral("{\"line\":\"a\\\"b\\\\c\\n\\u0001\",\"taskId\":\"t\",\"type\":\"task.log\"}"));
    }

    void terminalMessages_data()
    {
        QTest::addColumn<QJsonObject>("message");
        QTest::addColumn<QStringList>("expected");
        const QString s = QStringLiteral("S");
        const QString p = QStringLiteral("/p");
        const QStringList common{"projectPath:string=/p", "sessionId:string=S"};
        QTest::newRow("terminal.opened interactive")
            << Messages::terminalOpened(s, p, true)
            << QStringList{"mode:string=interactive", "projectPath:string=/p", "sessionId:string=S",
                           "status:string=running", "type:string=terminal.opened"};
        QTest::newRow("terminal.opened line mode")
            << Messages::terminalOpened(s, p, false)
            << (common + QStringList{"status:string=running", "type:string=terminal.opened"});
        QTest::newRow("terminal.opened in the repository root")
            << Messages::terminalOpened(s, p, false, true)
            << QStringList{"projectPath:string=/p", "projectPathMissing:bool=true", "sessionId:string=S",
                           "status:string=running", "type:string=terminal.opened"};
        QTest::newRow("terminal.opened interactive in the repository root")
            << Messages::terminalOpened(s, p, true, true)
            << QStringList{"mode:string=interactive", "projectPath:string=/p", "projectPathMissing:bool=true",
                           "sessionId:string=S",      "status:string=running", "type:string=terminal.opened"};
        QTest::newRow("terminal.opened on attach")
            << Messages::terminalAttached(s, p)
            << (common + QStringList{"status:string=running", "type:string=terminal.opened"});
        QTest::newRow("terminal.output") << Messages::terminalOutput(s, p, QStringLiteral("hi\n"))
                                         << QStringList{"data:string=hi\n", "projectPath:string=/p",
                                                        "sessionId:string=S", "type:string=terminal.output"};
        QTest::newRow("terminal.output snapshot")
            << Messages::terminalOutput(s, p, QStringLiteral("x"), true)
            << QStringList{"data:string=x", "projectPath:string=/p", "sessionId:string=S", "snapshot:bool=true",
                           "type:string=terminal.output"};
        QTest::newRow("terminal.status") << Messages::terminalStatus(s, p, 80, 24)
                                         << QStringList{"message:string=Terminal ready (80x24)",
                                                        "projectPath:string=/p", "sessionId:string=S",
                                                        "status:string=running", "type:string=terminal.status"};
        QTest::newRow("terminal.completion")
            << Messages::terminalCompletion(s, p, 3, 6, QStringLiteral("Doc"),
                                            {QStringLiteral("Docker.txt"), QStringLiteral("Documents/")})
            << QStringList{"projectPath:string=/p",
                           "replacement:string=Doc",
                           "replacementEnd:int=6",
                           "replacementStart:int=3",
                           "sessionId:string=S",
                           R"(suggestions:array=["Docker.txt","Documents/"])",
                           "type:string=terminal.completion"};
        QTest::newRow("terminal.closed") << Messages::terminalClosed(s, p, 137)
                                         << QStringList{"exitCode:int=137", "projectPath:string=/p",
                                                        "sessionId:string=S", "type:string=terminal.closed"};
        QTest::newRow("terminal.closed without process")
            << Messages::terminalClosed(s, p, std::nullopt) << (common + QStringList{"type:string=terminal.closed"});
        QTest::newRow("terminal.error") << Messages::terminalError(s, p, QStringLiteral("Terminal session not found."))
                                        << QStringList{"error:string=Terminal session not found.",
                                                       "message:string=Terminal session not found.",
                                                       "projectPath:string=/p", "sessionId:string=S",
                                                       "type:string=terminal.error"};
    }
    void terminalMessages()
    {
        QFETCH(QJsonObject, message);
        QFETCH(QStringList, expected);
        QCOMPARE(shape(message), expected);
    }
};

QTEST_GUILESS_MAIN(TstMessages)
#include "tst_messages.moc"
