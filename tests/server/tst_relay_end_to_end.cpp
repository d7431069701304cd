// The programs together, as a user runs them: the relay server, the agent, the approval
// tool started by a (fake) `claude`, and a phone played by the test.
#include "app/pairing.h"
#include "paced_terminal_reader.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/test_support.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>

#include <csignal>

#include <memory>

using namespace brinmoor::test;

namespace {

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

// What the phone saw of one task, one line per message: "type" and the interesting member.
QStringList taskTrace(const RelayClient& phone, const QString& taskId)
{
    QStringList trace;
    for (const QJsonObject& message : phone.messages()) {
        if (message.value(QStringLiteral("taskId")).toString() != taskId)
            continue;
        const QString type = typeOf(message);
        if (type == QLatin1String("task.heartbeat"))
            continue;
        QString line = type;
        for (const char* member : {"line", "chunk", "text", "errorCode"}) {
            if (message.contains(QLatin1String(member)))
                line += QLatin1Char(' ') + message.value(QLatin1String(member)).toString();
        }
        trace.append(line);
        if (message.value(QStringLiteral("agentId")).toString() != QLatin1String("cli-agent"))
            trace.append(QStringLiteral("(wrong agentId)"));
    }
    return trace;
}

// The fake `claude` asks for permission to write notes.txt through the approval server
// its --mcp-config names, and writes the file only when allowed.
constexpr char kAskingClaude[] =
    "decision=$(\"$BRINMOOR_TEST_HELPER\" mcp-call \"$config\" Write '{\"file_path\":\"notes.txt\"}')\n"
    "print -r -- \"$decision\" > $dir/decision.$n\n"
    "if [[ $decision == *'\"behavior\":\"allow\"'* ]]; then\n"
    "  print -r -- written > notes.txt\n"
    "  answer='Wrote notes.txt.'\n"
    "else\n"
    "  answer='I was not allowed to write notes.txt.'\n"
    "fi\n"
    "{ print -r -- '{\"type\":\"assistant\",\"message\":{\"content\":[{\"type\":\"text\",\"text\":\"'$answer'\"}]}}'\n"
    "  print -r -- '{\"type\":\"result\",\"subtype\":\"success\",\"is_error\":false,\"result\":\"'$answer'\"}'\n"
    "} > $dir/$name.$n.stream\n";

} // namespace

class TstRelayEndToEnd : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<RelayProcess> m_relay;
    std::unique_ptr<AgentProcess> m_agent;
    std::unique_ptr<QTemporaryDir> m_fake;
    std::unique_ptr<QTemporaryDir> m_tmp;

    // The relay, and the agent connected to it with fake tools first on its PATH and a
    // plain login shell for its terminals.
    bool startBoth(const QStringList& relayEnvironment = {})
    {
        m_relay = std::make_unique<RelayProcess>();
        m_relay->token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
        if (!m_relay->start(environment(relayEnvironment)))
            return false;
        m_fake = std::make_unique<QTemporaryDir>();
        m_tmp = std::make_unique<QTemporaryDir>();
        writeFile(m_tmp->path() + QStringLiteral("/zsh/.zshrc"), "PS1='> '\n");
        m_agent = std::make_unique<AgentProcess>();
        QDir().mkpath(m_agent->repo.path() + QStringLiteral("/App"));
        QProcessEnvironment extra;
        extra.insert(QStringLiteral("PATH"), fakeToolsDir() + QLatin1Char(':') + qEnvironmentVariable("PATH"));
        extra.insert(QStringLiteral("BRINMOOR_FAKE_DIR"), m_fake->path());
        extra.insert(QStringLiteral("BRINMOOR_TEST_HELPER"),
                     QCoreApplication::applicationDirPath() + QStringLiteral("/../bin/brinmoor_test_helper"));
        extra.insert(QStringLiteral("TMPDIR"), m_tmp->path());
        extra.insert(QStringLiteral("ZDOTDIR"), m_tmp->path() + QStringLiteral("/zsh"));
        m_agent->start(m_relay->url(), extra);
        return m_relay->waitForLine(QStringLiteral("agent.register agentId=cli-agent"));
    }

    QString createTask(RelayClient& phone, const QJsonObject& payload)
    {
        auto created = [&] {
            QList<QJsonObject> all;
            for (const QJsonObject& m : phone.messages()) {
                if (typeOf(m) == QLatin1String("task.created"))
                    all.append(m);
            }
            return all;
        };
        const qsizetype before = created().size();
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.create")},
                               {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                               {QStringLiteral("payload"), payload}});
        if (!waitUntil([&] { return created().size() > before; }))
            return {};
        return created().last().value(QStringLiteral("taskId")).toString();
    }

    bool waitForTaskEnd(RelayClient& phone, const QString& taskId, int timeoutMs = 20000)
    {
        return phone
            .waitFor(
                [&](const QJsonObject& m) {
                    return m.value(QStringLiteral("taskId")).toString() == taskId &&
                           (typeOf(m) == QLatin1String("task.finished") || typeOf(m) == QLatin1String("task.failed"));
                },
                timeoutMs)
            .has_value();
    }

    QJsonObject chatPayload(const QString& conversation)
    {
        return {{QStringLiteral("action"), QStringLiteral("chat")},
                {QStringLiteral("system"), QStringLiteral("claude")},
                {QStringLiteral("projectPath"), QStringLiteral("App")},
                {QStringLiteral("prompt"), QStringLiteral("Write some notes")},
                {QStringLiteral("conversationId"), conversation},
                {QStringLiteral("approvalMode"), QStringLiteral("on_request")}};
    }

    // Once the task has ended on the agent, a new relay on the port the old one had.
    bool relayBackAfter(const QString& taskId, quint16 port)
    {
        const bool ended = waitUntil([&] {
            return m_agent->logTexts().contains(QStringLiteral("runTask process terminated taskId=") + taskId +
                                                QStringLiteral(" exitCode=0"));
        });
        m_relay = std::make_unique<RelayProcess>();
        m_relay->token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
        return ended && m_relay->start({}, port);
    }

private Q_SLOTS:
    void cleanup()
    {
        if (m_agent)
            QVERIFY(m_agent->stop());
        m_agent.reset();
        m_relay.reset();
        m_fake.reset();
        m_tmp.reset();
    }

    void runsAShellTaskThroughTheRelay()
    {
        QVERIFY(startBoth());
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        const QJsonObject hello = phone.messages().first();
        QCOMPARE(hello.value(QStringLiteral("agents"))
                     .toArray()
                     .first()
                     .toObject()
                     .value(QStringLiteral("agentId"))
                     .toString(),
                 QStringLiteral("cli-agent"));
        const QString taskId = createTask(phone, {{QStringLiteral("action"), QStringLiteral("shell")},
                                                  {QStringLiteral("command"), QStringLiteral("echo hello")}});
        QVERIFY(!taskId.isEmpty());
        QVERIFY(waitForTaskEnd(phone, taskId));
        QCOMPARE(
            taskTrace(phone, taskId),
            (QStringList{
                QStringLiteral("task.created"),
                QStringLiteral("task.log workspace.resolve action=shell requestedProjectPath= resolvedWorkingDir=") +
                    m_agent->repo.path(),
                QStringLiteral("task.started"), QStringLiteral("task.log hello"), QStringLiteral("task.finished")}));
        // The line of output is numbered; the agent's own line is not.
        const auto numbered = [&](const QString& text) {
            return phone.waitFor([&](const QJsonObject& m) {
                return typeOf(m) == QLatin1String("task.log") && m.value(QStringLiteral("line")).toString() == text;
            });
        };
        QCOMPARE(numbered(QStringLiteral("hello"))->value(QStringLiteral("number")), QJsonValue(1));
        QVERIFY(!numbered(QStringLiteral("workspace.resolve action=shell requestedProjectPath= resolvedWorkingDir=") +
                          m_agent->repo.path())
                     ->contains(QStringLiteral("number")));
        // The agent asked for the shell's registration refresh; the relay keeps the latest.
        QVERIFY(httpExchange(m_relay->port,
                             "GET /v1/agents HTTP/1.1\r\nAuthorization: Bearer " + m_relay->token.toUtf8() + "\r\n\r\n")
                    .contains("\"agentId\":\"cli-agent\",\"busy\":false"));
    }

    // The agent runs one task at a time: a second created at once waits at the relay and
    // runs when the first has ended.
    void tasksCreatedBackToBackRunOneAfterTheOther()
    {
        QVERIFY(startBoth());
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        const QString first = createTask(phone, {{QStringLiteral("action"), QStringLiteral("shell")},
                                                 {QStringLiteral("command"), QStringLiteral("echo first")}});
        const QString second = createTask(phone, {{QStringLiteral("action"), QStringLiteral("shell")},
                                                  {QStringLiteral("command"), QStringLiteral("echo second")}});
        QVERIFY(waitForTaskEnd(phone, first));
        QVERIFY(waitForTaskEnd(phone, second));
        const QString resolved =
            QStringLiteral("task.log workspace.resolve action=shell requestedProjectPath= resolvedWorkingDir=") +
            m_agent->repo.path();
        QCOMPARE(taskTrace(phone, first),
                 (QStringList{QStringLiteral("task.created"), resolved, QStringLiteral("task.started"),
                              QStringLiteral("task.log first"), QStringLiteral("task.finished")}));
        QStringList ran = taskTrace(phone, second);
        QCOMPARE(ran.mid(0, 2), (QStringList{QStringLiteral("task.created"), QStringLiteral("task.queued")}));
        ran.removeAll(QStringLiteral("task.queued"));
        ran.removeAll(QStringLiteral("task.unqueued"));
        QCOMPARE(ran, (QStringList{QStringLiteral("task.created"), resolved, QStringLiteral("task.started"),
                                   QStringLiteral("task.log second"), QStringLiteral("task.finished")}));
        // One after the other: the second started once the first had ended.
        const auto at = [&](const QString& taskId, const char* type) {
            for (qsizetype i = 0; i < phone.messages().size(); ++i) {
                const QJsonObject& m = phone.messages()[i];
                if (m.value(QStringLiteral("taskId")).toString() == taskId && typeOf(m) == QLatin1String(type))
                    return i;
            }
            return qsizetype(-1);
        };
        QVERIFY(at(first, "task.finished") < at(second, "task.started"));
    }

    void aChatAsksThePhoneBeforeItWrites()
    {
        QVERIFY(startBoth());
        writeFile(m_fake->path() + QStringLiteral("/claude.script"), kAskingClaude);
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        const QString notes = m_agent->repo.path() + QStringLiteral("/App/notes.txt");

        // Allowed: the tool goes on and writes.
        const QString allowedTask = createTask(phone, chatPayload(QStringLiteral("conv-1")));
        const auto request = phone.waitForType(QStringLiteral("permission.request"), 20000);
        QVERIFY(request);
        QCOMPARE(*request, (QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.request")},
                                        {QStringLiteral("requestId"), request->value(QStringLiteral("requestId"))},
                                        {QStringLiteral("taskId"), allowedTask},
                                        {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                                        {QStringLiteral("toolName"), QStringLiteral("Write")},
                                        {QStringLiteral("toolInput"),
                                         QJsonObject{{QStringLiteral("file_path"), QStringLiteral("notes.txt")}}},
                                        {QStringLiteral("toolUseId"), QStringLiteral("toolu_1")}}));
        // The tool is held in its call until the phone decides.
        QVERIFY(!QFile::exists(notes));
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                               {QStringLiteral("requestId"), request->value(QStringLiteral("requestId"))},
                               {QStringLiteral("decision"), QStringLiteral("allow")}});
        QVERIFY(waitForTaskEnd(phone, allowedTask));
        QCOMPARE(readFile(m_fake->path() + QStringLiteral("/decision.1")),
                 QByteArray("{\"behavior\":\"allow\",\"updatedInput\":{\"file_path\":\"notes.txt\"}}\n"));
        QCOMPARE(readFile(notes), QByteArray("written\n"));
        const QStringList allowed = taskTrace(phone, allowedTask);
        QCOMPARE(allowed.mid(allowed.indexOf(QStringLiteral("task.started"))).join(QStringLiteral(" | ")),
                 (QStringList{QStringLiteral("task.started"), QStringLiteral("permission.request"),
                              QStringLiteral("task.chat.chunk Wrote notes.txt."),
                              QStringLiteral("task.chat.final Wrote notes.txt."), QStringLiteral("task.finished")})
                     .join(QStringLiteral(" | ")));

        // Denied: the tool stops short.
        QVERIFY(QFile::remove(notes));
        const QString deniedTask = createTask(phone, chatPayload(QStringLiteral("conv-2")));
        const auto second = phone.waitFor(
            [&](const QJsonObject& m) {
                return typeOf(m) == QLatin1String("permission.request") &&
                       m.value(QStringLiteral("taskId")).toString() == deniedTask;
            },
            20000);
        QVERIFY(second);
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                               {QStringLiteral("requestId"), second->value(QStringLiteral("requestId"))},
                               {QStringLiteral("decision"), QStringLiteral("deny")},
                               {QStringLiteral("message"), QStringLiteral("not today")}});
        QVERIFY(waitForTaskEnd(phone, deniedTask));
        QCOMPARE(readFile(m_fake->path() + QStringLiteral("/decision.2")),
                 QByteArray("{\"behavior\":\"deny\",\"message\":\"not today\"}\n"));
        QVERIFY(!QFile::exists(notes));
        QVERIFY(taskTrace(phone, deniedTask)
                    .contains(QStringLiteral("task.chat.final I was not allowed to write notes.txt.")));
        // The configuration holding the token is gone with each task.
        QCOMPARE(QDir(m_tmp->path()).entryList({QStringLiteral("brinmoor-mcp-*")}, QDir::Files), QStringList());
    }

    void drivesATerminalThroughTheRelay()
    {
        QVERIFY(startBoth());
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        auto command = [&](const QString& type, const QJsonObject& payload) {
            phone.send(QJsonObject{{QStringLiteral("type"), type},
                                   {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                                   {QStringLiteral("payload"), payload}});
        };
        command(QStringLiteral("terminal.open"), {{QStringLiteral("sessionId"), QStringLiteral("s1")},
                                                  {QStringLiteral("projectPath"), QStringLiteral("App")}});
        const auto opened = phone.waitForType(QStringLiteral("terminal.opened"));
        QVERIFY(opened);
        QCOMPARE(opened->value(QStringLiteral("agentId")).toString(), QStringLiteral("cli-agent"));
        QVERIFY(!opened->contains(QStringLiteral("mode")));
        command(QStringLiteral("terminal.input"),
                {{QStringLiteral("sessionId"), QStringLiteral("s1")},
                 {QStringLiteral("dataBase64"), QString::fromLatin1(QByteArray("echo relay-$((6*7))\n").toBase64())}});
        QVERIFY(phone.waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("terminal.output") &&
                   m.value(QStringLiteral("data")).toString().contains(QLatin1String("relay-42"));
        }));
        command(QStringLiteral("terminal.close"), {{QStringLiteral("sessionId"), QStringLiteral("s1")}});
        const auto closed = phone.waitForType(QStringLiteral("terminal.closed"));
        QVERIFY(closed);
        QCOMPARE(closed->value(QStringLiteral("sessionId")).toString(), QStringLiteral("s1"));
    }

    // A page asks the agent what lies under its repository root; every client hears it.
    void listsTheProjectsUnderTheRepositoryRoot()
    {
        QVERIFY(startBoth());
        const QString repo = m_agent->repo.path();
        QVERIFY(QDir().mkpath(repo + QStringLiteral("/App/.git")));
        writeFile(repo + QStringLiteral("/proj/Tool/Cargo.toml"), "[package]\n");
        writeFile(repo + QStringLiteral("/.hidden/package.json"), "{}");
        writeFile(repo + QStringLiteral("/notes/todo.txt"), "none\n");
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("projects.list")},
                               {QStringLiteral("agentId"), QStringLiteral("cli-agent")}});
        std::optional<QJsonObject> listed = other.waitForType(QStringLiteral("projects.listed"));
        QVERIFY2(listed, qPrintable(other.trace()));
        QVERIFY(listed->value(QStringLiteral("seq")).isDouble());
        listed->remove(QStringLiteral("seq"));
        QCOMPARE(
            QJsonDocument(*listed).toJson(QJsonDocument::Compact),
            QByteArray(R"({"agentId":"cli-agent","projects":[{"markers":[".git"],"name":"App","path":"App"},)"
                       R"({"markers":["Cargo.toml"],"name":"Tool","path":"proj/Tool"}],"type":"projects.listed"})"));
        QVERIFY(phone.waitForType(QStringLiteral("projects.listed")));
        // The relay's own answers.
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("projects.list")}});
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("projects.list")},
                               {QStringLiteral("agentId"), QStringLiteral("gone-agent")}});
        const auto error = [&](int index) {
            QList<QJsonObject> errors;
            for (const QJsonObject& m : phone.messages()) {
                if (typeOf(m) == QLatin1String("error"))
                    errors.append(m);
            }
            return errors.value(index);
        };
        QVERIFY(waitUntil([&] { return !error(1).isEmpty(); }));
        QCOMPARE(error(0), (QJsonObject{{QStringLiteral("type"), QStringLiteral("error")},
                                        {QStringLiteral("code"), QStringLiteral("BAD_REQUEST")},
                                        {QStringLiteral("message"),
                                         QStringLiteral("projects.list needs a string \"agentId\"")}}));
        QCOMPARE(error(1),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("error")},
                              {QStringLiteral("code"), QStringLiteral("AGENT_OFFLINE")},
                              {QStringLiteral("message"), QStringLiteral("agent is not connected: gone-agent")}}));
    }

    // A page approves two of a proposal's three files: the agent applies those two.
    void approvesSomeFilesThroughTheRelay()
    {
        QVERIFY(startBoth());
        const QString app = m_agent->repo.path() + QStringLiteral("/App");
        writeFile(app + QStringLiteral("/a.txt"), "a\n");
        writeFile(app + QStringLiteral("/b.txt"), "b\n");
        writeFile(m_fake->path() + QStringLiteral("/codex.script"),
                  "print A > a.txt; print B > b.txt; print C > c.txt\n");
        writeFile(m_fake->path() + QStringLiteral("/codex.stream"),
                  codexAgentMessages({QStringLiteral("I changed a.txt and b.txt and added c.txt.")}));
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        const QString taskId = createTask(phone, {{QStringLiteral("action"), QStringLiteral("ai_task")},
                                                  {QStringLiteral("system"), QStringLiteral("codex")},
                                                  {QStringLiteral("mode"), QStringLiteral("apply")},
                                                  {QStringLiteral("approvalMode"), QStringLiteral("on_request")},
                                                  {QStringLiteral("projectPath"), QStringLiteral("App")},
                                                  {QStringLiteral("prompt"), QStringLiteral("change them")}});
        const std::optional<QJsonObject> awaiting = phone.waitForType(QStringLiteral("task.awaiting_approval"), 20000);
        QVERIFY2(awaiting, qPrintable(phone.trace()));
        QCOMPARE(awaiting->value(QStringLiteral("fileChoice")), QJsonValue(true));
        phone.send(QJsonObject{
            {QStringLiteral("type"), QStringLiteral("task.approval")},
            {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
            {QStringLiteral("taskId"), taskId},
            {QStringLiteral("payload"),
             QJsonObject{{QStringLiteral("decision"), QStringLiteral("approve")},
                         {QStringLiteral("files"), QJsonArray{QStringLiteral("c.txt"), QStringLiteral("a.txt")}}}}});
        QVERIFY(waitForTaskEnd(phone, taskId));
        const QStringList trace = taskTrace(phone, taskId);
        QCOMPARE(trace.mid(trace.indexOf(QStringLiteral("task.log proposal.approval approved files=2 of 3"))),
                 (QStringList{QStringLiteral("task.log proposal.approval approved files=2 of 3"),
                              QStringLiteral("task.progress"), QStringLiteral("task.log proposal.applied a.txt"),
                              QStringLiteral("task.log proposal.left b.txt"),
                              QStringLiteral("task.log proposal.applied c.txt"), QStringLiteral("task.artifact"),
                              QStringLiteral("task.finished")}));
        QCOMPARE(readFile(app + QStringLiteral("/a.txt")), QByteArray("A\n"));
        QCOMPARE(readFile(app + QStringLiteral("/b.txt")), QByteArray("b\n"));
        QCOMPARE(readFile(app + QStringLiteral("/c.txt")), QByteArray("C\n"));
    }

    void theAgentComesBackWhenTheServerRestarts()
    {
        QVERIFY(startBoth());
        const quint16 port = m_relay->port;
        m_relay->kill();
        QVERIFY(waitUntil(
            [&] { return m_agent->logTexts().filter(QStringLiteral("status Reconnect in 3s: ")).size() > 0; }));
        m_relay = std::make_unique<RelayProcess>();
        m_relay->token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
        QVERIFY(m_relay->start({}, port));
        QElapsedTimer clock;
        clock.start();
        QVERIFY(m_relay->waitForLine(QStringLiteral("agent.register agentId=cli-agent"), 4000));
        QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        QCOMPARE(phone.messages()
                     .first()
                     .value(QStringLiteral("agents"))
                     .toArray()
                     .first()
                     .toObject()
                     .value(QStringLiteral("registration"))
                     .toObject()
                     .value(QStringLiteral("supportsApproval")),
                 QJsonValue(true));
    }

    // The relay is killed while a task prints and started again: the phone, back too,
    // has every line and the end once, in order.
    void aTaskOutlivesARelayKilledInItsMidst()
    {
        QVERIFY(startBoth());
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        PieceWriter pieces(m_tmp->path() + QStringLiteral("/pieces"));
        const QString taskId =
            createTask(phone, {{QStringLiteral("action"), QStringLiteral("shell")},
                               {QStringLiteral("command"), QString(QStringLiteral("cat ") + pieces.path())}});
        const QString started = QStringLiteral("runTask process started taskId=") + taskId + QStringLiteral(" pid=");
        QVERIFY(waitUntil([&] { return !m_agent->logTexts().filter(started).isEmpty(); }));
        QVERIFY(pieces.start(m_agent->logTexts().filter(started).first().mid(started.size()).toLongLong()));
        const auto writeLines = [&](int from, int to) {
            for (int piece = from; piece <= to; piece += 10) {
                QByteArray text;
                for (int i = piece; i < piece + 10; ++i)
                    text += "line " + QByteArray::number(i) + '\n';
                if (!pieces.write(text))
                    return false;
            }
            return true;
        };
        QVERIFY(writeLines(1, 100));
        QVERIFY(phone.waitFor([](const QJsonObject& m) { return m.value("line") == "line 100"; }));
        qint64 seen = 0;
        for (const QJsonObject& m : phone.messages())
            seen = std::max(seen, m.value("seq").toInteger());
        const quint16 port = m_relay->port;
        m_relay->kill();
        QVERIFY(writeLines(101, 300));
        pieces.finish();
        QVERIFY(relayBackAfter(taskId, port));
        RelayClient back;
        QVERIFY(back.openResuming(port, m_relay->token, QJsonObject{{QStringLiteral("cli-agent"), seen}}));
        QVERIFY(back.waitFor(
            [&](const QJsonObject& m) { return typeOf(m) == "task.finished" && m.value("taskId") == taskId; }, 20000));
        QStringList lines;
        int ends = 0;
        for (const RelayClient* client : {&phone, &back}) {
            for (const QJsonObject& m : client->messages()) {
                if (m.value(QStringLiteral("taskId")).toString() != taskId)
                    continue;
                if (typeOf(m) == QLatin1String("task.finished"))
                    ++ends;
                if (typeOf(m) == QLatin1String("task.log") && m.value("line").toString().startsWith("line "))
                    lines.append(m.value("line").toString());
            }
        }
        QStringList expected;
        for (int i = 1; i <= 300; ++i)
            expected.append(QStringLiteral("line %1").arg(i));
        QCOMPARE(lines, expected);
        QCOMPARE(ends, 1);
    }

    // Lines the relay confirmed to the agent but never gave the phone (it was away) are
    // not lost when the relay dies: the agent keeps the newest confirmed messages, and
    // the new relay, which has none of them, gets them again.
    void confirmedLinesOutliveARelayKilledBeforeThePhoneHadThem()
    {
        QVERIFY(startBoth());
        auto phone = std::make_unique<RelayClient>();
        QVERIFY(phone->open(m_relay->port, m_relay->token));
        PieceWriter pieces(m_tmp->path() + QStringLiteral("/pieces"));
        const QString taskId =
            createTask(*phone, {{QStringLiteral("action"), QStringLiteral("shell")},
                                {QStringLiteral("command"), QString(QStringLiteral("cat ") + pieces.path())}});
        const QString started = QStringLiteral("runTask process started taskId=") + taskId + QStringLiteral(" pid=");
        QVERIFY(waitUntil([&] { return !m_agent->logTexts().filter(started).isEmpty(); }));
        QVERIFY(pieces.start(m_agent->logTexts().filter(started).first().mid(started.size()).toLongLong()));
        const auto writeLines = [&](int from, int to) {
            QByteArray text;
            for (int i = from; i <= to; ++i)
                text += "line " + QByteArray::number(i) + '\n';
            return pieces.write(text);
        };
        QVERIFY(writeLines(1, 100));
        QVERIFY(phone->waitFor([](const QJsonObject& m) { return m.value("line") == "line 100"; }));
        qint64 seen = 0;
        for (const QJsonObject& m : phone->messages())
            seen = std::max(seen, m.value("seq").toInteger());
        // The phone goes; the relay gets and confirms the next lines.
        phone.reset();
        QVERIFY(writeLines(101, 150));
        QVERIFY(waitUntil([&] { return m_relay->lines().join('\n').contains(QLatin1String("client.disconnected")); }));
        RelayClient watcher;
        QVERIFY(watcher.openResuming(m_relay->port, m_relay->token, QJsonObject{{QStringLiteral("cli-agent"), seen}}));
        QVERIFY(watcher.waitFor([](const QJsonObject& m) { return m.value("line") == "line 150"; }));
        // The agent has read the relay's confirmation of them once it has answered a
        // command the relay sent after it.
        watcher.send(QJsonObject{
            {QStringLiteral("type"), QStringLiteral("terminal.open")},
            {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
            {QStringLiteral("payload"), QJsonObject{{QStringLiteral("sessionId"), QStringLiteral("s")},
                                                    {QStringLiteral("projectPath"), QStringLiteral("App")}}}});
        QVERIFY(watcher.waitForType(QStringLiteral("terminal.opened")));
        const quint16 port = m_relay->port;
        m_relay->kill();
        QVERIFY(writeLines(151, 200));
        pieces.finish();
        QVERIFY(relayBackAfter(taskId, port));
        RelayClient back;
        QVERIFY(back.openResuming(port, m_relay->token, QJsonObject{{QStringLiteral("cli-agent"), seen}}));
        QVERIFY(back.waitFor(
            [&](const QJsonObject& m) { return typeOf(m) == "task.finished" && m.value("taskId") == taskId; }, 20000));
        QStringList lines;
        for (const QJsonObject& m : back.messages()) {
            QVERIFY2(typeOf(m) != QLatin1String("resume.gap"), qPrintable(QJsonDocument(m).toJson()));
            if (typeOf(m) == QLatin1String("task.log") && m.value("taskId") == taskId &&
                m.value("line").toString().startsWith("line "))
                lines.append(m.value("line").toString());
        }
        QStringList expected;
        for (int i = 101; i <= 200; ++i)
            expected.append(QStringLiteral("line %1").arg(i));
        QCOMPARE(lines, expected);
    }

    // A phone that reads a terminal at 4 MB/s gets every byte of `cat` and stays
    // connected, though it may fall behind by no more than 1 MiB; and Ctrl-C stops a
    // `yes` it watches.
    void aSlowTerminalReaderGetsEveryByteAndCanStillInterrupt()
    {
        QVERIFY(startBoth({QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES=1048576")}));
        QDir(m_agent->repo.path()).mkdir(QStringLiteral("App"));
        QByteArray content;
        for (int i = 0; i < 80'000; ++i)
            content += QByteArray::number(i).rightJustified(7, '0') + ' ' + QByteArray(91, 'x') + '\n';
        writeFile(m_agent->repo.path() + QStringLiteral("/App/data.txt"), content);
        brinmoor::relay::PacedTerminalReader reader(m_relay->port, "tok-4e1f9a7c2b6d8035e0a3c1f7",
                                                    QStringLiteral("cli-agent"), QStringLiteral("s"), 4 * 1024 * 1024);
        reader.keepOutput(true);
        QVERIFY(waitUntil([&] { return reader.isUpgraded(); }));
        reader.command(QStringLiteral("terminal.open"), {{QStringLiteral("projectPath"), QStringLiteral("App")},
                                                         {QStringLiteral("mode"), QStringLiteral("interactive")}});
        QVERIFY(waitUntil([&] { return reader.types().contains(QStringLiteral("terminal.opened")); }));
        const auto type = [&](const QByteArray& text) {
            reader.command(QStringLiteral("terminal.input"),
                           {{QStringLiteral("dataBase64"), QString::fromLatin1(text.toBase64())}});
        };
        type("stty -echo; cat data.txt; echo END''-CAT\n");
        QVERIFY(waitUntil([&] { return reader.tail().contains("END-CAT"); }, 60000));
        QByteArray expected = content;
        expected.replace("\n", "\r\n");
        const qsizetype at = reader.output().indexOf(expected.left(100));
        QVERIFY(at >= 0);
        QCOMPARE(QCryptographicHash::hash(reader.output().mid(at, expected.size()), QCryptographicHash::Sha256),
                 QCryptographicHash::hash(expected, QCryptographicHash::Sha256));
        QVERIFY(!reader.isClosed());

        const qint64 before = reader.outputBytes();
        type("yes\n");
        QVERIFY(waitUntil([&] { return reader.outputBytes() > before + 1024 * 1024; }, 20000));
        reader.command(QStringLiteral("terminal.signal"), {{QStringLiteral("signal"), QStringLiteral("ctrl_c")}});
        type("echo AFTER''-YES\n");
        QVERIFY(waitUntil([&] { return reader.tail().contains("AFTER-YES"); }, 20000));
        QVERIFY(!reader.isClosed());
        QVERIFY(m_relay->lines().filter(QStringLiteral("client.dropped")).isEmpty());
    }

    // A page that takes a task's output slowly paces it: it gets every line, in order,
    // and is never dropped, though unpaced the relay would drop it (its output comes 8
    // times as fast as the page reads, 30 MB of messages).
    void aSlowReaderGetsEveryLineOfATask()
    {
        QVERIFY(startBoth());
        brinmoor::relay::PacedTerminalReader reader(m_relay->port, "tok-4e1f9a7c2b6d8035e0a3c1f7",
                                                    QStringLiteral("cli-agent"), QStringLiteral("s"), 4 * 1024 * 1024);
        QVERIFY(waitUntil([&] { return reader.isUpgraded(); }));
        // A first task, whose line the reader takes, makes it pace the next from its start.
        const auto create = [&](const QString& command) {
            reader.send({{QStringLiteral("type"), QStringLiteral("task.create")},
                         {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                         {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                                 {QStringLiteral("command"), command}}}});
        };
        create(QStringLiteral("echo first"));
        QVERIFY(waitUntil([&] { return reader.types().contains(QStringLiteral("task.finished")); }));
        QCOMPARE(reader.taskLines().size(), 1);
        const auto ends = [&] { return reader.types().count(QStringLiteral("task.finished")); };
        reader.send(
            {{QStringLiteral("type"), QStringLiteral("task.create")},
             {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                     {QStringLiteral("command"), QStringLiteral("seq 1 300000")}}}});
        QVERIFY(waitUntil([&] { return ends() == 2 || reader.isClosed(); }, 120000));
        QVERIFY2(!reader.isClosed(), qPrintable(m_relay->lines().join(QLatin1Char('\n'))));
        QVERIFY(m_relay->lines().filter(QStringLiteral("client.dropped")).isEmpty());
        const QList<QPair<qint64, QString>> lines = reader.taskLines().mid(1);
        QCOMPARE(lines.size(), 300000);
        for (qsizetype i = 0; i < lines.size(); ++i) {
            if (lines[i].first != i + 1 || lines[i].second != QString::number(i + 1))
                QFAIL(
                    qPrintable(QStringLiteral("line %1 is %2 %3").arg(i + 1).arg(lines[i].first).arg(lines[i].second)));
        }
    }

    // What the agent keeps of a task is read back by the client that asks, alone.
    void aTasksOutputIsReadBackFromTheAgent()
    {
        QVERIFY(startBoth());
        RelayClient phone;
        QVERIFY(phone.open(m_relay->port, m_relay->token));
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));
        const QString taskId = createTask(phone, {{QStringLiteral("action"), QStringLiteral("shell")},
                                                  {QStringLiteral("command"), QStringLiteral("seq 1 30000")}});
        QVERIFY(waitForTaskEnd(phone, taskId, 60000));
        const auto ask = [&](QJsonObject message) {
            message.insert(QStringLiteral("agentId"), QStringLiteral("cli-agent"));
            phone.send(message);
            const std::optional<QJsonObject> answer = phone.waitFor([&](const QJsonObject& m) {
                return m.value(QStringLiteral("requestId")) == message.value(QStringLiteral("requestId"));
            });
            return answer.value_or(QJsonObject());
        };
        const auto json = [](const QJsonObject& object) {
            return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
        };
        QCOMPARE(json(ask({{QStringLiteral("type"), QStringLiteral("task.output.read")},
                           {QStringLiteral("taskId"), taskId},
                           {QStringLiteral("from"), 29998},
                           {QStringLiteral("count"), 5},
                           {QStringLiteral("requestId"), QStringLiteral("a")}})),
                 QStringLiteral(R"({"agentId":"cli-agent","ended":true,"from":29998,"lines":["29998","29999","30000"],)"
                                R"("requestId":"a","taskId":"%1","total":30000,"type":"task.output"})")
                     .arg(taskId));
        QCOMPARE(json(ask({{QStringLiteral("type"), QStringLiteral("task.output.read")},
                           {QStringLiteral("taskId"), taskId},
                           {QStringLiteral("match"), QStringLiteral("9999")},
                           {QStringLiteral("count"), 3},
                           {QStringLiteral("requestId"), QStringLiteral("b")}})),
                 QStringLiteral(R"({"agentId":"cli-agent","ended":true,"lines":["9999","19999","29999"],)"
                                R"("numbers":[9999,19999,29999],"requestId":"b","taskId":"%1","total":30000,)"
                                R"("type":"task.output"})")
                     .arg(taskId));
        QCOMPARE(json(ask({{QStringLiteral("type"), QStringLiteral("task.output.read")},
                           {QStringLiteral("taskId"), QStringLiteral("nope")},
                           {QStringLiteral("count"), 3},
                           {QStringLiteral("requestId"), QStringLiteral("c")}})),
                 QStringLiteral(R"({"agentId":"cli-agent","error":"no output is kept for task nope",)"
                                R"("requestId":"c","taskId":"nope","type":"task.output"})"));
        QCOMPARE(
            json(ask({{QStringLiteral("type"), QStringLiteral("task.output.read")},
                      {QStringLiteral("taskId"), taskId},
                      {QStringLiteral("requestId"), QStringLiteral("d")}})),
            QStringLiteral("{\"code\":\"BAD_REQUEST\",\"message\":\"task.output.read needs \\\"count\\\" as a whole "
                           "number\",\"requestId\":\"d\",\"type\":\"error\"}"));
        const QJsonObject kept = ask({{QStringLiteral("type"), QStringLiteral("tasks.list")},
                                      {QStringLiteral("requestId"), QStringLiteral("e")}});
        QCOMPARE(kept.value(QStringLiteral("type")).toString(), QStringLiteral("tasks.kept"));
        QVERIFY(!kept.contains(QStringLiteral("seq")));
        const QJsonObject task = kept.value(QStringLiteral("tasks")).toArray().first().toObject();
        QCOMPARE(task.value(QStringLiteral("taskId")).toString(), taskId);
        QCOMPARE(task.value(QStringLiteral("kind")).toString(), QStringLiteral("shell"));
        QCOMPARE(task.value(QStringLiteral("status")).toString(), QStringLiteral("finished"));
        QCOMPARE(task.value(QStringLiteral("exitCode")), QJsonValue(0));
        QCOMPARE(task.value(QStringLiteral("lines")), QJsonValue(30000));
        QVERIFY(task.value(QStringLiteral("endedAt")).toDouble() >= task.value(QStringLiteral("startedAt")).toDouble());
        QVERIFY(task.value(QStringLiteral("startedAt")).toDouble() > 1.7e12);
        // The other client heard none of it.
        QVERIFY(phone.waitForType(QStringLiteral("task.finished")).has_value());
        for (const QJsonObject& m : other.messages()) {
            QVERIFY(typeOf(m) != QLatin1String("task.output"));
            QVERIFY(typeOf(m) != QLatin1String("tasks.kept"));
        }
    }

    // The app's own server dies (a crash, a kill): the app says so, starts it again on the
    // same port, and the agent is back on it.
    void theHeadlessAppStartsItsServerAgainWhenItDies()
    {
        const quint16 port = freePort();
        HeadlessProcess app;
        app.start(port);
        QVERIFY(app.waitForOutput("agent.register agentId=headless-mac"));
        const QByteArray started = "status Server: Server on :" + QByteArray::number(port) + '\n';
        QCOMPARE(app.output().count(started), 1);
        qint64 server = 0;
        for (const qint64 pid : childProcesses(app.process.processId())) {
            if (readFile(QStringLiteral("/proc/%1/comm").arg(pid)).trimmed() == "brinmoor-server")
                server = pid;
        }
        QVERIFY(server > 0);
        ::kill(pid_t(server), SIGKILL);
        QVERIFY(app.waitForOutput("status Server: Server stopped (9)\n"));
        QVERIFY(waitUntil([&] { return app.output().count(started) == 2; }, 10000));
        QVERIFY(waitUntil([&] { return app.output().count("agent.register agentId=headless-mac") >= 2; }, 10000));
        QVERIFY(app.stop());
        QCOMPARE(app.process.exitCode(), 0);
    }

    // What a new user does: start the app, read the pairing details, and use them.
    void theHeadlessAppStartsItsOwnServer()
    {
        HeadlessProcess app;
        app.start(freePort());
        static const QRegularExpression details(
            QStringLiteral("Server URL: (http://[^\\n]+)\\nAgent ID: ([^\\n]+)\\nToken: ([0-9a-f]{32})\\n"));
        QRegularExpressionMatch match;
        QVERIFY(waitUntil([&] {
            match = details.match(QString::fromUtf8(app.output()));
            return match.hasMatch();
        }));
        QCOMPARE(match.captured(2), QStringLiteral("headless-mac"));
        const QUrl serverURL(match.captured(1));
        // After the Wexlin code: the link to Brinmoor Web with the token, and its code.
        const QString web = match.captured(1) + QStringLiteral("/#token=") + match.captured(3);
        const QString webLines = QStringLiteral("Web: ") + web + QLatin1Char('\n') +
                                 brinmoor::Pairing::terminalQRCode(brinmoor::Pairing::qrModules(web.toUtf8()));
        QVERIFY(app.waitForOutput(webLines.toUtf8()));
        QVERIFY(QString::fromUtf8(app.output()).indexOf(webLines) > match.capturedEnd());
        QVERIFY(app.waitForOutput("agent.register agentId=headless-mac"));

        RelayClient phone;
        QVERIFY(phone.open(quint16(serverURL.port()), match.captured(3)));
        phone.send(QJsonObject{
            {QStringLiteral("type"), QStringLiteral("task.create")},
            {QStringLiteral("agentId"), QStringLiteral("headless-mac")},
            {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                    {QStringLiteral("command"), QStringLiteral("echo paired")}}}});
        QVERIFY(phone.waitFor(
            [](const QJsonObject& m) { return m.value(QStringLiteral("line")) == QLatin1String("paired"); }));
        QVERIFY(phone.waitForType(QStringLiteral("task.finished")));

        QVERIFY(app.stop());
        QCOMPARE(app.process.exitCode(), 0);
        QVERIFY(app.output().trimmed().endsWith("] shutdown complete"));
        const QByteArray errors = app.process.readAllStandardError();
        QVERIFY2(!errors.contains("QProcess"), errors.constData());
        // The server went with the app.
        QVERIFY(waitUntil([&] { return !phone.isConnected(); }));
        QCOMPARE(httpExchange(quint16(serverURL.port()), "GET /v1/health HTTP/1.1\r\n\r\n", 2000), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TstRelayEndToEnd)
#include "tst_relay_end_to_end.moc"
