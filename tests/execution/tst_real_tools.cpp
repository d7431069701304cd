// The released `claude` and `codex`, installed from the npm registry by scripts/real-tools,
// driven by the agent through the relay server as a phone drives them, against fake
// model servers on loopback whose scripted replies stand in for the models. Skipped
// ("skipped: tools not installed") when the tools cannot be installed.
#include "chat/chat_execution.h"
#include "execution/execution_resolution.h"
#include "proposals/ai_task_resolution.h"
#include "sessions/claude_session_store.h"
#include "support/fake_model_server.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/real_tools.h"
#include "support/relay_client.h"
#include "support/test_support.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <memory>
#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

constexpr int kTaskTimeoutMs = 90000;

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

using RealTools::Answer;
using RealTools::messagesAPI;
using RealTools::processesWithEnvironment;
using RealTools::responsesAPI;

// Every text that a Responses request or a Messages request carries, joined: enough
// to see whether an earlier turn is part of the conversation.
QString conversationText(const FakeModelServer::Request& request)
{
    return QString::fromUtf8(request.body);
}

// A model that says hello, and "Still here." once asked to say it again.
Answer claudeHelloThenStillHere()
{
    return messagesAPI([](const FakeModelServer::Request& request) {
        return FakeModelServer::messagesText(conversationText(request).contains(QLatin1String("Say it again"))
                                                 ? QStringLiteral("Still here.")
                                                 : QStringLiteral("Hello from the fake model."));
    });
}

} // namespace

class TstRealTools : public QObject, private RealToolsFixture {
    Q_OBJECT

    QString createTask(const QJsonObject& payload)
    {
        auto created = [&] {
            QStringList ids;
            for (const QJsonObject& m : m_phone->messages()) {
                if (typeOf(m) == QLatin1String("task.created"))
                    ids.append(m.value(QStringLiteral("taskId")).toString());
            }
            return ids;
        };
        const qsizetype before = created().size();
        m_phone->send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.create")},
                                  {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                                  {QStringLiteral("payload"), payload}});
        if (!waitUntil([&] { return created().size() > before; }))
            return {};
        return created().last();
    }

    std::optional<QJsonObject> waitForTask(const QString& taskId, const QStringList& types)
    {
        return m_phone->waitFor(
            [&](const QJsonObject& m) {
                return m.value(QStringLiteral("taskId")).toString() == taskId && types.contains(typeOf(m));
            },
            kTaskTimeoutMs);
    }

    bool waitForTaskEnd(const QString& taskId)
    {
        return waitForTask(taskId, {QStringLiteral("task.finished"), QStringLiteral("task.failed"),
                                    QStringLiteral("task.cancelled")})
            .has_value();
    }

    // Every message the phone received about a task, heartbeats aside, as compact JSON
    // with what changes from run to run named instead: "<task>", "<request>",
    // "<proposal>", "<repo>", "<tmp>", "<copy>". The relay's seqs are left out while
    // they rise; one that does not is kept as "<seq out of order>".
    QStringList exactTrace(const QString& taskId) const
    {
        QStringList trace;
        qint64 lastSeq = 0;
        for (QJsonObject message : m_phone->messages()) {
            if (message.value(QStringLiteral("taskId")).toString() != taskId ||
                typeOf(message) == QLatin1String("task.heartbeat"))
                continue;
            if (message.contains(QStringLiteral("seq"))) {
                const qint64 seq = message.take(QStringLiteral("seq")).toInteger();
                if (seq <= lastSeq)
                    message.insert(QStringLiteral("seq"), QStringLiteral("<seq out of order>"));
                lastSeq = seq;
            }
            message.insert(QStringLiteral("taskId"), QStringLiteral("<task>"));
            for (const char* key : {"requestId", "proposalId"}) {
                if (message.contains(QLatin1String(key)))
                    message.insert(QLatin1String(key), QStringLiteral("<%1>").arg(QLatin1String(key).chopped(2)));
            }
            QString text = QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact));
            static const QRegularExpression copy(QStringLiteral("brinmoor-proposals/[^/\" ]+-[0-9A-F-]{36}"));
            text.replace(copy, QStringLiteral("brinmoor-proposals/<copy>"));
            text.replace(m_agent->repo.path(), QStringLiteral("<repo>"));
            text.replace(m_tmp->path(), QStringLiteral("<tmp>"));
            text.replace(taskId, QStringLiteral("<task>"));
            trace.append(text);
        }
        return trace;
    }

    // The trace with each run of "task.log" messages as one entry holding their lines
    // joined: the agent forwards output in the pieces it reads, and where a real tool's
    // write is cut by a read is up to the machine's load, not to the agent.
    static QStringList withLogRunsJoined(const QStringList& trace)
    {
        QStringList joined;
        std::optional<QString> run;
        for (const QString& text : trace) {
            const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
            if (typeOf(message) == QLatin1String("task.log")) {
                run = run.value_or(QString()) + message.value(QStringLiteral("line")).toString();
                continue;
            }
            if (run)
                joined.append(QStringLiteral("task.log* ") + *std::exchange(run, std::nullopt));
            joined.append(text);
        }
        if (run)
            joined.append(QStringLiteral("task.log* ") + *run);
        return joined;
    }

    // True when the traces are equal, but for where output was cut into reads; otherwise
    // both are printed in full.
    static bool sameTrace(const QStringList& actual, const QStringList& expected)
    {
        if (actual == expected || withLogRunsJoined(actual) == withLogRunsJoined(expected))
            return true;
        qInfo().noquote() << "actual trace:\n" + actual.join(QLatin1Char('\n')) + "\nexpected trace:\n" +
                                 expected.join(QLatin1Char('\n'));
        return false;
    }

    static QString json(const QJsonObject& object)
    {
        return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
    }

    QJsonObject chat(const QString& system, const QString& prompt, const QString& conversation, const QString& approval)
    {
        return {{QStringLiteral("action"), QStringLiteral("chat")},     {QStringLiteral("system"), system},
                {QStringLiteral("projectPath"), QStringLiteral("App")}, {QStringLiteral("prompt"), prompt},
                {QStringLiteral("conversationId"), conversation},       {QStringLiteral("approvalMode"), approval}};
    }

    // The messages of a chat that answered `text` in one piece, after the resolve line.
    static QStringList chatAnswered(const QString& conversation, const QString& text)
    {
        return {json({{"agentId", "cli-agent"}, {"taskId", "<task>"}, {"type", "task.started"}}),
                json({{"agentId", "cli-agent"},
                      {"chunk", text},
                      {"conversationId", conversation},
                      {"taskId", "<task>"},
                      {"type", "task.chat.chunk"}}),
                json({{"agentId", "cli-agent"},
                      {"conversationId", conversation},
                      {"taskId", "<task>"},
                      {"text", text},
                      {"type", "task.chat.final"}}),
                json({{"agentId", "cli-agent"}, {"exitCode", 0}, {"taskId", "<task>"}, {"type", "task.finished"}})};
    }

    static QString log(const QString& line)
    {
        return json({{"agentId", "cli-agent"}, {"line", line}, {"taskId", "<task>"}, {"type", "task.log"}});
    }

    static QString created()
    {
        return json({{"agentId", "cli-agent"}, {"taskId", "<task>"}, {"type", "task.created"}});
    }

    static QString chatResolved()
    {
        return json({{"agentId", "cli-agent"},
                     {"line", "workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=<repo>/App"},
                     {"taskId", "<task>"},
                     {"type", "task.log"}});
    }

    // Stops the agent as the system stops it and starts it again with the same folders.
    bool restartAgent()
    {
        if (!m_agent->stop())
            return false;
        const auto registrations = [this] {
            return m_relay->lines().filter(QStringLiteral("agent.register agentId=cli-agent")).size();
        };
        const qsizetype before = registrations();
        m_agent->start(m_relay->url(), m_environment);
        return waitUntil([&] { return registrations() > before; });
    }

    static QString chunk(const QString& conversation, const QString& text)
    {
        return json({{"agentId", "cli-agent"},
                     {"chunk", text},
                     {"conversationId", conversation},
                     {"taskId", "<task>"},
                     {"type", "task.chat.chunk"}});
    }

    static QString started()
    {
        return json({{"agentId", "cli-agent"}, {"taskId", "<task>"}, {"type", "task.started"}});
    }

    // The end of a chat whose tool exited with status 1.
    static QStringList chatFailed(const QString& conversation)
    {
        return {json({{"agentId", "cli-agent"},
                      {"conversationId", conversation},
                      {"message", "command exited with status 1"},
                      {"taskId", "<task>"},
                      {"type", "task.chat.error"}}),
                json({{"agentId", "cli-agent"},
                      {"error", "command exited with status 1"},
                      {"errorCode", "COMMAND_EXIT_NONZERO"},
                      {"exitCode", 1},
                      {"taskId", "<task>"},
                      {"type", "task.failed"}})};
    }

    // The end of a chat that answered `text`: its final text and "task.finished".
    static QStringList chatEnded(const QString& conversation, const QString& text)
    {
        return chatAnswered(conversation, text).mid(2);
    }

    // How the approval server's answer reached the model: the call's output as JSON text.
    static bool allowed(const QJsonValue& functionCallOutput)
    {
        return QJsonDocument(functionCallOutput.toObject())
            .toJson(QJsonDocument::Compact)
            .contains(R"(\"behavior\":\"allow\")");
    }

    void answerPermission(const QJsonObject& request, const QString& decision)
    {
        QJsonObject answer{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                           {QStringLiteral("requestId"), request.value(QStringLiteral("requestId"))},
                           {QStringLiteral("decision"), decision}};
        if (decision == QLatin1String("deny"))
            answer.insert(QStringLiteral("message"), QStringLiteral("not today"));
        m_phone->send(answer);
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_toolsBin = RealTools::install();
        if (m_toolsBin.isEmpty())
            QSKIP("skipped: tools not installed");
    }

    void cleanup()
    {
        // No tool, approval server or shell of the agent is left running.
        QVERIFY(stopAll());
        // Nothing a task wrote for itself is left behind.
        if (m_tmp)
            QCOMPARE(QDir(m_tmp->path())
                         .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden)
                         .filter(QRegularExpression(QStringLiteral("^brinmoor-mcp-"))),
                     QStringList());
        m_tmp.reset();
        m_home.reset();
    }

    void claudeChatResumesItsSessionOnTheSecondMessage()
    {
        QVERIFY(startAll());
        m_anthropic->respond = messagesAPI([](const FakeModelServer::Request& request) {
            const bool second = lastUserContent(request.json)
                                    .value(QStringLiteral("text"))
                                    .toString()
                                    .contains(QLatin1String("Say it again"));
            return FakeModelServer::messagesText(second ? QStringLiteral("Still here.")
                                                        : QStringLiteral("Hello from the fake model."));
        });
        const QString conversation = QStringLiteral("real-claude-chat");
        const QString first = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Say hello"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(first));
        QVERIFY(
            sameTrace(exactTrace(first), QStringList{created(), chatResolved()} +
                                             chatAnswered(conversation, QStringLiteral("Hello from the fake model."))));

        const QString second = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Say it again"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(second));
        QVERIFY(sameTrace(exactTrace(second), QStringList{created(), chatResolved()} +
                                                  chatAnswered(conversation, QStringLiteral("Still here."))));

        // The conversation id is no UUID: both messages ran with the name-based UUID of
        // its key, and the second one carried the first exchange to the model.
        const QString session = QStringLiteral("ccd3cbc4-4c90-5c99-9df1-6b50542f35b6");
        const QStringList log = m_agent->logTexts();
        QCOMPARE(log.filter(QStringLiteral("shell=claude --session-id '") + session +
                            QStringLiteral("' --dangerously-skip-permissions"))
                     .size(),
                 1);
        QCOMPARE(log.filter(QStringLiteral("shell=claude --resume '") + session +
                            QStringLiteral("' --dangerously-skip-permissions"))
                     .size(),
                 1);
        const QList<FakeModelServer::Request>& requests = m_anthropic->requests();
        QVERIFY(!requests.isEmpty());
        QVERIFY(conversationText(requests.last()).contains(QLatin1String("Hello from the fake model.")));
        QVERIFY(conversationText(requests.last()).contains(QLatin1String("Say hello")));
    }

    void claudeAsksThePhoneBeforeItWrites()
    {
        QVERIFY(startAll());
        const QString notes = project() + QStringLiteral("/notes.txt");
        // The model asks to write notes.txt, then says what came of it.
        m_anthropic->respond = messagesAPI([notes](const FakeModelServer::Request& request) {
            const QJsonObject last = lastUserContent(request.json);
            if (last.value(QStringLiteral("type")).toString() == QLatin1String("tool_result"))
                return FakeModelServer::messagesText(last.value(QStringLiteral("is_error")).toBool()
                                                         ? QStringLiteral("I was not allowed to write notes.txt.")
                                                         : QStringLiteral("Wrote notes.txt."));
            const bool second = last.value(QStringLiteral("text")).toString().contains(QLatin1String("again"));
            return FakeModelServer::messagesToolUse(
                second ? QStringLiteral("toolu_real_2") : QStringLiteral("toolu_real_1"), QStringLiteral("Write"),
                {{"file_path", notes}, {"content", "written by claude\n"}});
        });
        const QJsonObject toolInput{{"file_path", "<repo>/App/notes.txt"}, {"content", "written by claude\n"}};
        auto permissionRequest = [&](const QString& toolUseId) {
            return json({{"agentId", "cli-agent"},
                         {"requestId", "<request>"},
                         {"taskId", "<task>"},
                         {"toolInput", toolInput},
                         {"toolName", "Write"},
                         {"toolUseId", toolUseId},
                         {"type", "permission.request"}});
        };

        // Allowed once: the tool writes.
        const QString allowed = createTask(chat(QStringLiteral("claude"), QStringLiteral("Write the notes"),
                                                QStringLiteral("real-claude-allow"), QStringLiteral("on_request")));
        const auto request = waitForTask(allowed, {QStringLiteral("permission.request")});
        QVERIFY(request);
        // claude is held in its call to the approval tool until the phone decides.
        QVERIFY(!QFile::exists(notes));
        m_phone->send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                                  {QStringLiteral("requestId"), request->value(QStringLiteral("requestId"))},
                                  {QStringLiteral("decision"), QStringLiteral("allow")}});
        QVERIFY(waitForTaskEnd(allowed));
        QCOMPARE(readFile(notes), QByteArray("written by claude\n"));
        QVERIFY(sameTrace(
            exactTrace(allowed),
            QStringList{created(), chatResolved(), chatAnswered(QString(), QString()).first(),
                        permissionRequest(QStringLiteral("toolu_real_1"))} +
                chatAnswered(QStringLiteral("real-claude-allow"), QStringLiteral("Wrote notes.txt.")).mid(1)));

        // Denied once: the tool leaves the file alone and the model hears why.
        QVERIFY(QFile::remove(notes));
        const QString denied = createTask(chat(QStringLiteral("claude"), QStringLiteral("Write the notes again"),
                                               QStringLiteral("real-claude-deny"), QStringLiteral("on_request")));
        const auto second = waitForTask(denied, {QStringLiteral("permission.request")});
        QVERIFY(second);
        m_phone->send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                                  {QStringLiteral("requestId"), second->value(QStringLiteral("requestId"))},
                                  {QStringLiteral("decision"), QStringLiteral("deny")},
                                  {QStringLiteral("message"), QStringLiteral("not today")}});
        QVERIFY(waitForTaskEnd(denied));
        QVERIFY(!QFile::exists(notes));
        // The phone hears why the answer says so.
        QVERIFY(sameTrace(exactTrace(denied),
                          QStringList{created(), chatResolved(), chatAnswered(QString(), QString()).first(),
                                      permissionRequest(QStringLiteral("toolu_real_2")),
                                      log(QStringLiteral("[tool.error] Write: not today"))} +
                              chatAnswered(QStringLiteral("real-claude-deny"),
                                           QStringLiteral("I was not allowed to write notes.txt."))
                                  .mid(1)));
        const QJsonObject toolResult = lastUserContent(m_anthropic->requests().last().json);
        QCOMPARE(toolResult.value(QStringLiteral("tool_use_id")).toString(), QStringLiteral("toolu_real_2"));
        QCOMPARE(toolResult.value(QStringLiteral("is_error")).toBool(), true);
        QVERIFY2(QJsonDocument(toolResult).toJson().contains("not today"),
                 QJsonDocument(toolResult).toJson().constData());
    }

    void codexChatResumesItsThread()
    {
        QVERIFY(startAll());
        m_openai->respond = responsesAPI([](const FakeModelServer::Request& request) {
            const bool second = conversationText(request).contains(QLatin1String("Say it again"));
            return FakeModelServer::responsesMessage(second ? QStringLiteral("Still here, says codex.")
                                                            : QStringLiteral("Hello from the fake codex model."));
        });
        const QString conversation = QStringLiteral("real-codex-chat");
        // Without approval: the command this codex no longer takes is fitted to it.
        const QString first = createTask(
            chat(QStringLiteral("codex"), QStringLiteral("Say hello"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(first));
        // codex tells on standard error that it read its (empty) standard input.
        QStringList answered = chatAnswered(conversation, QStringLiteral("Hello from the fake codex model."));
        answered.insert(1, log(QStringLiteral("Reading additional input from stdin...")));
        answered.insert(2, log(QString()));
        QVERIFY(sameTrace(exactTrace(first), QStringList{created(), chatResolved()} + answered));
        // With approval: the thread is resumed with the approval server configured.
        const QString second = createTask(
            chat(QStringLiteral("codex"), QStringLiteral("Say it again"), conversation, QStringLiteral("on_request")));
        QVERIFY(waitForTaskEnd(second));
        // (A resumed thread does not read standard input.)
        answered = chatAnswered(conversation, QStringLiteral("Still here, says codex."));
        QVERIFY(sameTrace(exactTrace(second), QStringList{created(), chatResolved()} + answered));

        const QStringList log = m_agent->logTexts();
        QCOMPARE(log.filter(QRegularExpression(
                                QStringLiteral("^toolCompatibility codex exec at .*/codex\\.js does not accept "
                                               "--full-auto; using --sandbox workspace-write$")))
                     .size(),
                 1);
        QCOMPARE(log.filter(QStringLiteral("toolCompatibility")).size(), 1);
        const QStringList resumed =
            log.filter(QStringLiteral("shell=codex exec resume --json --skip-git-repo-check '"));
        QCOMPARE(resumed.size(), 1);
        QVERIFY(log.contains(QStringLiteral("resolveChatExecution using Codex MCP approval approverPath=") + binDir() +
                             QStringLiteral("/MCPApprovalServer")));
        const QList<FakeModelServer::Request>& requests = m_openai->requests();
        QVERIFY(!requests.isEmpty());
        QVERIFY(conversationText(requests.last()).contains(QLatin1String("Hello from the fake codex model.")));
    }

    void claudeAnswerAfterAToolCallReachesThePhoneWhole()
    {
        QVERIFY(startAll());
        writeFile(project() + QStringLiteral("/a.txt"), "a\n");
        writeFile(project() + QStringLiteral("/b.txt"), "b\n");
        // The model says what it does, lists the folder, then answers; it writes each
        // text in two pieces.
        m_anthropic->respond = messagesAPI([](const FakeModelServer::Request& request) {
            if (lastUserContent(request.json).value(QStringLiteral("type")).toString() == QLatin1String("tool_result"))
                return FakeModelServer::messagesBlocks({QJsonObject{
                    {"type", "text"}, {"deltas", QJsonArray{"There are two ", "files here: a.txt and b.txt."}}}});
            return FakeModelServer::messagesBlocks(
                {QJsonObject{{"type", "text"}, {"deltas", QJsonArray{"Let me ", "look."}}},
                 QJsonObject{{"type", "tool_use"},
                             {"id", "toolu_ls"},
                             {"name", "Bash"},
                             {"input", QJsonObject{{"command", "ls"}, {"description", "List files"}}}}});
        });
        const QString conversation = QStringLiteral("real-claude-tools");
        const QString taskId = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("List the files"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(taskId));
        // As the model wrote it, each block whole, one blank line between them.
        QVERIFY(
            sameTrace(exactTrace(taskId),
                      QStringList{created(), chatResolved(), started(), chunk(conversation, QStringLiteral("Let me ")),
                                  chunk(conversation, QStringLiteral("look.")),
                                  chunk(conversation, QStringLiteral("\n\nThere are two ")),
                                  chunk(conversation, QStringLiteral("files here: a.txt and b.txt."))} +
                          chatEnded(conversation, QStringLiteral("There are two files here: a.txt and b.txt."))));
        const QJsonObject listed = lastUserContent(m_anthropic->requests().last().json);
        QCOMPARE(listed.value(QStringLiteral("tool_use_id")).toString(), QStringLiteral("toolu_ls"));
        QVERIFY2(QJsonDocument(listed).toJson().contains("a.txt\\nb.txt"), QJsonDocument(listed).toJson().constData());
        QCOMPARE(
            m_agent->logTexts().filter(QStringLiteral("--output-format stream-json --include-partial-messages ")).size(),
            1);
    }

    void codexAsksThePhoneBeforeItActs()
    {
        QVERIFY(startAll());
        const QString touched = project() + QStringLiteral("/allowed.txt");
        // The model asks the approval tool, acts only when allowed, then says what came
        // of it.
        m_openai->respond = responsesAPI([](const FakeModelServer::Request& request) {
            const QJsonArray outputs = inputItems(request.json, QStringLiteral("function_call_output"));
            if (outputs.isEmpty())
                return FakeModelServer::responsesFunctionCall(
                    QStringLiteral("call_perm"), QStringLiteral("request_permission"),
                    {{"tool_name", "Bash"}, {"tool_input", QJsonObject{{"command", "touch allowed.txt"}}}},
                    QStringLiteral("mcp__approver"));
            if (outputs.size() == 2)
                return FakeModelServer::responsesMessage(QStringLiteral("Touched allowed.txt."));
            if (allowed(outputs.first()))
                return FakeModelServer::responsesFunctionCall(QStringLiteral("call_touch"),
                                                              QStringLiteral("exec_command"),
                                                              {{"cmd", "touch allowed.txt"}, {"login", false}});
            return FakeModelServer::responsesMessage(QStringLiteral("I was not allowed to touch allowed.txt."));
        });
        const QString request = json({{"agentId", "cli-agent"},
                                      {"requestId", "<request>"},
                                      {"taskId", "<task>"},
                                      {"toolInput", QJsonObject{{"command", "touch allowed.txt"}}},
                                      {"toolName", "Bash"},
                                      {"type", "permission.request"}});
        const QStringList readsInput{log(QStringLiteral("Reading additional input from stdin...")), log(QString())};

        // Allowed once: the command runs and the file is there.
        const QString allow = createTask(chat(QStringLiteral("codex"), QStringLiteral("Touch allowed.txt"),
                                              QStringLiteral("real-codex-allow"), QStringLiteral("on_request")));
        const auto asked = waitForTask(allow, {QStringLiteral("permission.request")});
        QVERIFY(asked);
        QVERIFY(!QFile::exists(touched));
        answerPermission(*asked, QStringLiteral("allow"));
        QVERIFY(waitForTaskEnd(allow));
        QVERIFY(QFile::exists(touched));
        QVERIFY(sameTrace(
            exactTrace(allow),
            QStringList{created(), chatResolved(), started()} + readsInput +
                QStringList{request, log(QStringLiteral("[command] /bin/bash -c 'touch allowed.txt'")),
                            chunk(QStringLiteral("real-codex-allow"), QStringLiteral("Touched allowed.txt."))} +
                chatEnded(QStringLiteral("real-codex-allow"), QStringLiteral("Touched allowed.txt."))));

        // Denied once: nothing runs, and the model hears why.
        QVERIFY(QFile::remove(touched));
        const QString deny = createTask(chat(QStringLiteral("codex"), QStringLiteral("Touch allowed.txt"),
                                             QStringLiteral("real-codex-deny"), QStringLiteral("on_request")));
        const auto askedAgain = waitForTask(deny, {QStringLiteral("permission.request")});
        QVERIFY(askedAgain);
        answerPermission(*askedAgain, QStringLiteral("deny"));
        QVERIFY(waitForTaskEnd(deny));
        QVERIFY(!QFile::exists(touched));
        const QString refused = QStringLiteral("I was not allowed to touch allowed.txt.");
        QVERIFY(
            sameTrace(exactTrace(deny), QStringList{created(), chatResolved(), started()} + readsInput +
                                            QStringList{request, chunk(QStringLiteral("real-codex-deny"), refused)} +
                                            chatEnded(QStringLiteral("real-codex-deny"), refused)));
        const QJsonArray outputs = inputItems(m_openai->requests().last().json, QStringLiteral("function_call_output"));
        QVERIFY(QJsonDocument(outputs.first().toObject()).toJson().contains(R"(\"message\":\"not today\")"));
    }

    void claudeConversationGoesOnAfterAFailedFirstMessage()
    {
        QVERIFY(startAll());
        // The model fails the first message (HTTP 500) and answers the next one.
        m_anthropic->respond = messagesAPI([](const FakeModelServer::Request& request) {
            if (!conversationText(request).contains(QLatin1String("Say it again")))
                return FakeModelServer::messagesError(500, QStringLiteral("Internal server error"));
            return FakeModelServer::messagesText(QStringLiteral("Still here."));
        });
        const QString conversation = QStringLiteral("real-claude-failed-first");
        const QString first = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Say hello"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(first));
        const QString error =
            QStringLiteral("API Error: 500 Internal server error. This is a server-side issue, usually temporary — try "
                           "again in a moment. If it persists, check your inference gateway (") +
            m_anthropic->baseURL().mid(7) + QStringLiteral(").");
        QVERIFY(
            sameTrace(exactTrace(first), QStringList{created(), chatResolved(), started(), chunk(conversation, error),
                                                     log(QStringLiteral("[claude.error] ") + error)} +
                                             chatFailed(conversation)));

        const QString second = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Say it again"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(second));
        QVERIFY(sameTrace(exactTrace(second), QStringList{created(), chatResolved()} +
                                                  chatAnswered(conversation, QStringLiteral("Still here."))));
        // claude kept the session of the failed message; the next one continued it, with
        // the first request in it.
        const QString session = ChatExecution::claudeSessionID(
            conversation, ChatExecution::scopedConversationKey(QStringLiteral("App"), conversation));
        const QStringList log = m_agent->logTexts();
        QCOMPARE(log.filter(QStringLiteral("shell=claude --session-id '") + session).size(), 1);
        QCOMPARE(log.filter(QStringLiteral("shell=claude --resume '") + session).size(), 1);
        QVERIFY(conversationText(m_anthropic->requests().last()).contains(QLatin1String("Say hello")));
    }

    void claudeSessionTheAgentCannotSeeIsContinued()
    {
        QVERIFY(startAll());
        // The user's shell gives claude another configuration folder than the agent knows.
        writeFile(m_home->path() + QStringLiteral("/.zshenv"),
                  "export CLAUDE_CONFIG_DIR=" + QFile::encodeName(m_home->path()) + "/claude-elsewhere\n");
        m_anthropic->respond = claudeHelloThenStillHere();
        const QString conversation = QStringLiteral("real-claude-hidden");
        const QString first = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Say hello"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(first));
        const QString second = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Say it again"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(second));
        const QString session = ChatExecution::claudeSessionID(
            conversation, ChatExecution::scopedConversationKey(QStringLiteral("App"), conversation));
        // claude refuses to create the session again: the task goes on with it continued,
        // and the phone reads why.
        QVERIFY(sameTrace(
            exactTrace(second),
            QStringList{created(), chatResolved(), started(),
                        log(QStringLiteral("Error: Session ID ") + session + QStringLiteral(" is already in use.")),
                        log(QString()),
                        log(QStringLiteral("[claude.retry] the session exists already; continuing it with --resume")),
                        chunk(conversation, QStringLiteral("Still here."))} +
                chatEnded(conversation, QStringLiteral("Still here."))));
        QVERIFY(conversationText(m_anthropic->requests().last()).contains(QLatin1String("Hello from the fake model.")));
        QVERIFY(QFile::exists(m_home->path() + QStringLiteral("/claude-elsewhere/projects/") +
                              ClaudeSessionStore::projectFolderName(project()) + QLatin1Char('/') + session +
                              QStringLiteral(".jsonl")));
    }

    void conversationsGoOnAfterTheAgentRestarts()
    {
        QVERIFY(startAll());
        m_anthropic->respond = claudeHelloThenStillHere();
        m_openai->respond = responsesAPI([](const FakeModelServer::Request& request) {
            return FakeModelServer::responsesMessage(conversationText(request).contains(QLatin1String("Say it again"))
                                                         ? QStringLiteral("Still here, says codex.")
                                                         : QStringLiteral("Hello from the fake codex model."));
        });
        const QString claude = QStringLiteral("real-claude-restart");
        const QString codex = QStringLiteral("real-codex-restart");
        QVERIFY(waitForTaskEnd(
            createTask(chat(QStringLiteral("claude"), QStringLiteral("Say hello"), claude, QStringLiteral("none")))));
        QVERIFY(waitForTaskEnd(
            createTask(chat(QStringLiteral("codex"), QStringLiteral("Say hello"), codex, QStringLiteral("none")))));

        QVERIFY(restartAgent());
        const QString bookkeeping = m_agent->configHome.path() + QStringLiteral("/state/brinmoor/chat-sessions.json");
        QCOMPARE(fileMode(bookkeeping), 0600);

        const QString claudeAgain =
            createTask(chat(QStringLiteral("claude"), QStringLiteral("Say it again"), claude, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(claudeAgain));
        QVERIFY(sameTrace(exactTrace(claudeAgain), QStringList{created(), chatResolved()} +
                                                       chatAnswered(claude, QStringLiteral("Still here."))));
        QVERIFY(conversationText(m_anthropic->requests().last()).contains(QLatin1String("Hello from the fake model.")));

        const QString codexAgain =
            createTask(chat(QStringLiteral("codex"), QStringLiteral("Say it again"), codex, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(codexAgain));
        // (A resumed thread does not read standard input.)
        QVERIFY(sameTrace(exactTrace(codexAgain), QStringList{created(), chatResolved()} +
                                                      chatAnswered(codex, QStringLiteral("Still here, says codex."))));
        QVERIFY(
            conversationText(m_openai->requests().last()).contains(QLatin1String("Hello from the fake codex model.")));

        const QString session =
            ChatExecution::claudeSessionID(claude, ChatExecution::scopedConversationKey(QStringLiteral("App"), claude));
        const QStringList log = m_agent->logTexts();
        QCOMPARE(log.filter(QStringLiteral("shell=claude --resume '") + session).size(), 1);
        QCOMPARE(log.filter(QStringLiteral("shell=codex exec resume --json --skip-git-repo-check '")).size(), 1);
    }

    void codexConversationGoesOnWhenItsThreadIsGone()
    {
        QVERIFY(startAll());
        m_openai->respond = responsesAPI([](const FakeModelServer::Request& request) {
            return FakeModelServer::responsesMessage(conversationText(request).contains(QLatin1String("Say it again"))
                                                         ? QStringLiteral("Still here, says codex.")
                                                         : QStringLiteral("Hello from the fake codex model."));
        });
        const QString conversation = QStringLiteral("real-codex-lost");
        QVERIFY(waitForTaskEnd(createTask(
            chat(QStringLiteral("codex"), QStringLiteral("Say hello"), conversation, QStringLiteral("none")))));
        // codex's record of the thread goes.
        QVERIFY(QDir(m_home->path() + QStringLiteral("/.codex/sessions")).removeRecursively());
        const QString second = createTask(
            chat(QStringLiteral("codex"), QStringLiteral("Say it again"), conversation, QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(second));
        static const QRegularExpression resumed(
            QStringLiteral("shell=codex exec resume --json --skip-git-repo-check '([0-9a-f-]+)'"));
        const QRegularExpressionMatch thread = resumed.match(m_agent->logTexts().join(QLatin1Char('\n')));
        QVERIFY(thread.hasMatch());
        QVERIFY(sameTrace(exactTrace(second),
                          QStringList{created(), chatResolved(), started(),
                                      log(QStringLiteral("Error: thread/resume: thread/resume failed: no rollout found "
                                                         "for thread id ") +
                                          thread.captured(1) + QStringLiteral(" (code -32600)")),
                                      log(QString()),
                                      log(QStringLiteral("[codex.retry] the thread is gone; starting a new one")),
                                      log(QStringLiteral("Reading additional input from stdin...")), log(QString()),
                                      chunk(conversation, QStringLiteral("Still here, says codex."))} +
                              chatEnded(conversation, QStringLiteral("Still here, says codex."))));
    }

    void whatTheToolsSayWhenTheyFailReachesThePhone()
    {
        QVERIFY(startAll());
        const QString refusal = QStringLiteral("The fake model refuses this prompt.");
        m_anthropic->respond = [refusal](const FakeModelServer::Request&) {
            return FakeModelServer::messagesError(400, refusal);
        };
        m_openai->respond = [refusal](const FakeModelServer::Request&) {
            return FakeModelServer::responsesFailed(refusal);
        };

        const QString claude = createTask(
            chat(QStringLiteral("claude"), QStringLiteral("Hi"), QStringLiteral("real-fail"), QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(claude));
        const QString codex = createTask(
            chat(QStringLiteral("codex"), QStringLiteral("Hi"), QStringLiteral("real-fail"), QStringLiteral("none")));
        QVERIFY(waitForTaskEnd(codex));
        // claude puts the error in its answer and in a failed result.
        QVERIFY(sameTrace(exactTrace(claude),
                          QStringList{created(), chatResolved(), started(),
                                      json({{"agentId", "cli-agent"},
                                            {"chunk", QString(QStringLiteral("API Error: 400 ") + refusal)},
                                            {"conversationId", "real-fail"},
                                            {"taskId", "<task>"},
                                            {"type", "task.chat.chunk"}}),
                                      log(QString(QStringLiteral("[claude.error] API Error: 400 ") + refusal))} +
                              chatFailed(QStringLiteral("real-fail"))));
        // codex reports the failed response as an error and a failed turn.
        QVERIFY(
            sameTrace(exactTrace(codex), QStringList{created(), chatResolved(), started(),
                                                     log(QStringLiteral("Reading additional input from stdin...")),
                                                     log(QString()), log(QStringLiteral("[codex.error] ") + refusal),
                                                     log(QStringLiteral("[codex.turn.failed] ") + refusal)} +
                                             chatFailed(QStringLiteral("real-fail"))));
    }

    void codexProposesAChangeThatIsAppliedOnceApproved()
    {
        QVERIFY(startAll());
        writeFile(project() + QStringLiteral("/notes.txt"), "teh notes\n");
        // The model fixes the file with a command, then explains.
        m_openai->respond = responsesAPI([](const FakeModelServer::Request& request) {
            if (inputItems(request.json, QStringLiteral("function_call_output")).isEmpty())
                return FakeModelServer::responsesFunctionCall(
                    QStringLiteral("call_fix"), QStringLiteral("exec_command"),
                    {{"cmd", "printf 'the notes\\n' > notes.txt"}, {"login", false}});
            return FakeModelServer::responsesMessage(
                QStringLiteral("notes.txt misspelled \"the\" in its only line, so I fixed that word there."));
        });
        const QString taskId = createTask({{QStringLiteral("action"), QStringLiteral("ai_task")},
                                           {QStringLiteral("system"), QStringLiteral("codex")},
                                           {QStringLiteral("mode"), QStringLiteral("apply")},
                                           {QStringLiteral("approvalMode"), QStringLiteral("on_request")},
                                           {QStringLiteral("projectPath"), QStringLiteral("App")},
                                           {QStringLiteral("prompt"), QStringLiteral("Fix the typo in notes.txt")}});
        const auto awaiting =
            waitForTask(taskId, {QStringLiteral("task.awaiting_approval"), QStringLiteral("task.failed")});
        QVERIFY(awaiting);
        QVERIFY2(typeOf(*awaiting) == QLatin1String("task.awaiting_approval"),
                 qPrintable(exactTrace(taskId).join(QLatin1Char('\n'))));
        QCOMPARE(readFile(project() + QStringLiteral("/notes.txt")), QByteArray("teh notes\n"));
        m_phone->send(QJsonObject{
            {QStringLiteral("type"), QStringLiteral("task.approval")},
            {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
            {QStringLiteral("taskId"), taskId},
            {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), QStringLiteral("approve")}}}});
        QVERIFY(waitForTaskEnd(taskId));
        QCOMPARE(readFile(project() + QStringLiteral("/notes.txt")), QByteArray("the notes\n"));
        const QString explanation =
            QStringLiteral("notes.txt misspelled \"the\" in its only line, so I fixed that word there.");
        const QString prompt =
            AITaskResolution::systemExecutionModeText +
            ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("Fix the typo in notes.txt"));
        const QJsonObject commentary{{"agentId", "cli-agent"},
                                     {"replace", true},
                                     {"taskId", "<task>"},
                                     {"text", explanation},
                                     {"type", "task.commentary"}};
        const QStringList expected{
            created(),
            log(QStringLiteral(
                "workspace.resolve action=ai_task requestedProjectPath=App resolvedWorkingDir=<repo>/App "
                "system=codex mode=apply approvalMode=on_request strategy=proposalApproval(requiresApproval: true)")),
            json({{"agentId", "cli-agent"}, {"taskId", "<task>"}, {"type", "task.started"}}),
            json({{"agentId", "cli-agent"},
                  {"message", "Preparing proposed changes"},
                  {"percent", 5},
                  {"phase", "prepare"},
                  {"taskId", "<task>"},
                  {"type", "task.progress"}}),
            log(QStringLiteral("proposal.workspace original=<repo>/App proposal=<tmp>/brinmoor-proposals/<copy>")),
            // The command as it ran: this codex takes the sandbox option instead of --full-auto.
            log(QStringLiteral(
                    "proposal.command shell=codex exec --sandbox workspace-write --json --skip-git-repo-check "
                    "--color never ") +
                ExecutionResolution::shellQuote(prompt)),
            log(QStringLiteral("[command] /bin/bash -c \"printf 'the notes\\\\n' > notes.txt\"")),
            json(commentary),
            log(QStringLiteral("proposal.command exitCode=0 outputBytes=1018")),
            log(QStringLiteral("proposal.diff bytes=130")),
            log(QStringLiteral("proposal.ready files=1 requiresApproval=true")),
            json(commentary),
            json({{"agentId", "cli-agent"},
                  {"kind", "proposal"},
                  {"mimeType", "text/x-diff"},
                  {"summary", explanation},
                  {"taskId", "<task>"},
                  {"type", "task.artifact"}}),
            json(
                {{"agentId", "cli-agent"},
                 {"fileChoice", true},
                 {"proposalCommentary", explanation},
                 {"proposalDiff", "diff --git a/notes.txt b/notes.txt\nindex b97116f..f09bce4 100644\n--- a/notes.txt\n"
                                  "+++ b/notes.txt\n@@ -1 +1 @@\n-teh notes\n+the notes"},
                 {"proposalFiles", QJsonArray{"notes.txt"}},
                 {"proposalId", "<proposal>"},
                 {"proposalSummary", explanation},
                 {"taskId", "<task>"},
                 {"type", "task.awaiting_approval"}}),
            log(QStringLiteral("proposal.approval approved")),
            json({{"agentId", "cli-agent"},
                  {"message", "Applying approved changes"},
                  {"percent", 75},
                  {"phase", "apply"},
                  {"taskId", "<task>"},
                  {"type", "task.progress"}}),
            json({{"agentId", "cli-agent"},
                  {"kind", "result"},
                  {"mimeType", "text/plain"},
                  {"summary", QString(QStringLiteral("Applied the approved changes to 1 file.\n\n") + explanation)},
                  {"taskId", "<task>"},
                  {"type", "task.artifact"}}),
            json({{"agentId", "cli-agent"}, {"exitCode", 0}, {"taskId", "<task>"}, {"type", "task.finished"}}),
        };
        QVERIFY(sameTrace(exactTrace(taskId), expected));
        // The model heard the command's result before it explained.
        const QJsonArray outputs = inputItems(m_openai->requests().last().json, QStringLiteral("function_call_output"));
        QCOMPARE(outputs.size(), 1);
        QCOMPARE(outputs.first().toObject().value(QStringLiteral("call_id")).toString(), QStringLiteral("call_fix"));
        // The workspace copy is removed off the event loop, shortly after the task ends.
        const QString copies = m_tmp->path() + QStringLiteral("/brinmoor-proposals");
        waitUntil([&] { return QDir(copies).isEmpty(); }, 5000);
        QCOMPARE(QDir(copies).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    }
};

QTEST_GUILESS_MAIN(TstRealTools)
#include "tst_real_tools.moc"
