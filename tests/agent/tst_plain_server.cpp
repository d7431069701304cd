// The agent against a server that knows only the agent protocol, as the phone app's
// own server does: it never confirms anything, says at most a bare hello, and expects
// every message once, in the shapes the protocol gives. A user of the phone drives the
// agent through its whole story: registration, tasks of every kind, chats, proposals,
// terminals, and connections that are lost or refused.
#include "agent/agent_runtime.h"
#include "base/diag.h"
#include "config/settings_store.h"
#include "support/loopback_server.h" // for waitUntil and the process helpers only
#include "support/plain_server.h"
#include "support/process_fixtures.h"
#include "support/test_support.h"
#include "terminal/pty_session.h"
#include "terminal/terminal_session_manager.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>
#include <QWebSocket>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::test;

// Fails with the server's report when the condition does not hold or the agent said
// something the server would not have expected.
#define PLAIN_VERIFY(condition)                                                                                        \
    do {                                                                                                               \
        const bool plainHolds = bool(condition);                                                                       \
        QVERIFY2(plainHolds && m_server->violations().isEmpty(),                                                       \
                 qPrintable(QStringLiteral("%1\n%2").arg(QLatin1String(#condition), m_server->report())));             \
    } while (false)

namespace {

const QString kAgentId = QStringLiteral("plain-agent");
const QString kToken = QStringLiteral("plain-token");
const QString kExplanation = QStringLiteral("The greeting said hello; I changed it to bye in greeting.txt.");

// Heartbeats and reconnects quickly, so that the story needs no long waits.
constexpr ConnectionIntervals kQuick{.heartbeatMilliseconds = 50, .reconnectMilliseconds = 200};

QJsonArray strings(const QStringList& list)
{
    return QJsonArray::fromStringList(list);
}

// The registration of an agent with every setting at its default but these.
QJsonObject registration(const QString& repoRoot, const QStringList& projects)
{
    return {{QStringLiteral("type"), QStringLiteral("agent.register")},
            {QStringLiteral("profiles"), strings({QStringLiteral("ios-local")})},
            {QStringLiteral("projects"), strings(projects)},
            {QStringLiteral("createProjectRoot"), QString()},
            {QStringLiteral("actions"),
             strings({QStringLiteral("build_ios"), QStringLiteral("ai_task"), QStringLiteral("chat"),
                      QStringLiteral("shell"), QStringLiteral("terminal_session")})},
            {QStringLiteral("taskKinds"),
             strings({QStringLiteral("build"), QStringLiteral("ai_task"), QStringLiteral("chat"),
                      QStringLiteral("shell"), QStringLiteral("terminal_session")})},
            {QStringLiteral("buildTemplate"), QStringLiteral("./deploy.sh {{projectArg}} --no-password")},
            {QStringLiteral("repoRoot"), repoRoot},
            {QStringLiteral("supportsApproval"), true}};
}

QString json(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QStringList typesOf(const QList<PlainServer::Frame>& frames)
{
    QStringList types;
    for (const PlainServer::Frame& frame : frames)
        types.append(frame.type());
    return types;
}

// The number after a log line's prefix (a process id), 0 before the line is logged.
qint64 loggedNumber(const DiagRecorder& log, const QString& prefix)
{
    for (const QString& text : log.texts()) {
        if (text.startsWith(prefix))
            return text.mid(prefix.size()).toLongLong();
    }
    return 0;
}

// An agent runtime in this process, pointed at the server, with its settings in memory.
struct Agent {
    QTemporaryDir repo;
    QTemporaryDir home;
    MemorySettingsStore settings;
    std::unique_ptr<AgentRuntime> runtime;
    QStringList statuses;

    Agent(const QString& base, const QString& serverURL, ConnectionIntervals intervals, Environment env)
        : repo(base + QStringLiteral("/repo-XXXXXX")), home(base + QStringLiteral("/home-XXXXXX"))
    {
        makeProject(repo.path() + QStringLiteral("/App"));
        makeProject(repo.path() + QStringLiteral("/Lib"), true);
        settings.setValue(QStringLiteral("serverURL"), serverURL);
        settings.setValue(QStringLiteral("agentId"), kAgentId);
        settings.setValue(QStringLiteral("token"), kToken);
        settings.setValue(QStringLiteral("repoRoot"), repo.path());
        settings.setValue(QStringLiteral("projects"), projects().join(QLatin1Char(',')));
        // No approval tool: chats run without asking the phone.
        settings.setValue(QStringLiteral("mcpApproverPath"), QString(base + QStringLiteral("/no-approver")));
        Machine machine;
        machine.executablePath = repo.path() + QStringLiteral("/bin/BrinmoorMacAgent");
        machine.currentDirectory = repo.path();
        machine.homeDirectory = home.path();
        machine.hostName = QStringLiteral("plain host");
        runtime = std::make_unique<AgentRuntime>(settings, std::move(env), machine, intervals);
        runtime->onStatus = [this](const QString& text) { statuses.append(text); };
    }

    ~Agent()
    {
        runtime->stop();
        // A running child ends before the runtime goes.
        runtime->stopRunningProcessIfAny(false);
        waitUntil([this] { return !runtime->currentTaskId(); }, 8000);
        runtime.reset();
    }

    QStringList projects() const
    {
        return {repo.path() + QStringLiteral("/App"), repo.path() + QStringLiteral("/Lib")};
    }
    QString path(const QString& name) const { return repo.path() + QLatin1Char('/') + name; }
};

} // namespace

class TstPlainServer : public QObject {
    Q_OBJECT

    QTemporaryDir m_base; // made before TMPDIR points into it
    QString m_tmp;        // the temporary folder of the agent and its children
    QString m_fake;       // the fake tools' instructions and records
    QString m_claude;     // claude's configuration folder
    std::unique_ptr<PlainServer> m_server;
    std::unique_ptr<Agent> m_agent;
    int m_barriers = 0;

    void startAgent(ConnectionIntervals intervals = kQuick)
    {
        m_agent = std::make_unique<Agent>(m_base.path(), m_server->serverURL(), intervals,
                                          Environment{{QStringLiteral("CLAUDE_CONFIG_DIR"), m_claude}});
        m_agent->runtime->start();
    }

    void writeFake(const QString& name, const QByteArray& content)
    {
        test::writeFile(m_fake + QLatin1Char('/') + name, content);
    }

    void shell(const QString& taskId, const QString& command, const QString& project = QStringLiteral("App"),
               qint64 timeoutSec = -1)
    {
        QJsonObject payload{{QStringLiteral("action"), QStringLiteral("shell")},
                            {QStringLiteral("command"), command},
                            {QStringLiteral("projectPath"), project}};
        if (timeoutSec >= 0)
            payload.insert(QStringLiteral("timeoutSec"), timeoutSec);
        m_server->assign(taskId, payload);
    }

    QString resolveLine(const QString& action, const QString& requested, const QString& resolved) const
    {
        return QStringLiteral("task.log workspace.resolve action=") + action +
               QStringLiteral(" requestedProjectPath=") + requested + QStringLiteral(" resolvedWorkingDir=") + resolved;
    }

    // The messages of one task but its heartbeats, one line each: "task.log LINE",
    // "task.failed CODE EXIT ERROR", "TYPE EXIT" for the others with an exit code, else
    // "TYPE".
    QStringList trace(const QString& taskId) const
    {
        QStringList lines;
        for (const PlainServer::Frame& frame : m_server->frames()) {
            const QJsonObject& m = frame.message;
            const QString type = frame.type();
            if (m.value(QStringLiteral("taskId")).toString() != taskId || type == QLatin1String("task.heartbeat"))
                continue;
            if (type == QLatin1String("task.log"))
                lines.append(type + QLatin1Char(' ') + m.value(QStringLiteral("line")).toString());
            else if (type == QLatin1String("task.failed"))
                lines.append(QStringLiteral("%1 %2 %3 %4")
                                 .arg(type, m.value(QStringLiteral("errorCode")).toString())
                                 .arg(m.value(QStringLiteral("exitCode")).toInteger())
                                 .arg(m.value(QStringLiteral("error")).toString()));
            else if (m.contains(QStringLiteral("exitCode")))
                lines.append(type + QLatin1Char(' ') +
                             QString::number(m.value(QStringLiteral("exitCode")).toInteger()));
            else
                lines.append(type);
        }
        return lines;
    }

    // A round trip: an attach to a session that does not exist, answered in order, so
    // everything the agent said before handling it has arrived when this returns true.
    bool barrier()
    {
        const QString sessionId = QStringLiteral("barrier-%1").arg(++m_barriers);
        m_server->terminal(QStringLiteral("terminal.attach"), {{QStringLiteral("sessionId"), sessionId}});
        const std::optional<QJsonObject> answer = m_server->waitFor(
            [&](const QJsonObject& m) { return m.value(QStringLiteral("sessionId")).toString() == sessionId; });
        return answer &&
               *answer == QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.error")},
                                      {QStringLiteral("sessionId"), sessionId},
                                      {QStringLiteral("projectPath"), QString()},
                                      {QStringLiteral("error"), QStringLiteral("Terminal session not found.")},
                                      {QStringLiteral("message"), QStringLiteral("Terminal session not found.")}};
    }

    QList<QJsonObject> terminalEvents(const QString& type, const QString& sessionId) const
    {
        QList<QJsonObject> found;
        for (const QJsonObject& m : m_server->messages(type)) {
            if (m.value(QStringLiteral("sessionId")).toString() == sessionId)
                found.append(m);
        }
        return found;
    }

    // The live output of a session from its `skip`-th "terminal.output" on, joined.
    QString liveOutput(const QString& sessionId, qsizetype skip = 0) const
    {
        QString text;
        qsizetype index = 0;
        for (const QJsonObject& m : terminalEvents(QStringLiteral("terminal.output"), sessionId)) {
            if (!m.contains(QStringLiteral("snapshot")) && index++ >= skip)
                text += m.value(QStringLiteral("data")).toString();
        }
        return text;
    }

    void input(const QString& sessionId, const QByteArray& bytes)
    {
        m_server->terminal(QStringLiteral("terminal.input"),
                           {{QStringLiteral("sessionId"), sessionId},
                            {QStringLiteral("dataBase64"), QString::fromLatin1(bytes.toBase64())}});
    }

    // Entries the agent left in its temporary folder (an empty proposals folder is fine).
    QStringList leftovers() const
    {
        QStringList found;
        for (const QString& entry : QDir(m_tmp).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden)) {
            if (entry == QLatin1String("brinmoor-proposals") &&
                QDir(m_tmp + QLatin1Char('/') + entry).isEmpty(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden))
                continue;
            found.append(entry);
        }
        return found;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_base.isValid());
        m_tmp = m_base.path() + QStringLiteral("/tmp");
        m_fake = m_base.path() + QStringLiteral("/fake");
        m_claude = m_base.path() + QStringLiteral("/claude");
        QVERIFY(QDir().mkpath(m_tmp));
        qputenv("TMPDIR", m_tmp.toUtf8());
        qputenv("PATH", (fakeToolsDir() + QLatin1Char(':')).toUtf8() + qgetenv("PATH"));
        qputenv("BRINMOOR_FAKE_DIR", m_fake.toUtf8());
        qputenv("CLAUDE_CONFIG_DIR", m_claude.toUtf8());
    }

    void init()
    {
        QDir(m_fake).removeRecursively();
        QVERIFY(QDir().mkpath(m_fake));
        QDir(m_claude).removeRecursively();
        QVERIFY(QDir().mkpath(m_claude));
        m_barriers = 0;
        m_server = std::make_unique<PlainServer>();
        QVERIFY(m_server->listen());
    }

    void cleanup()
    {
        const QStringList violations = m_server->violations();
        const QString report = m_server->report();
        m_agent.reset();
        m_server.reset();
        // Nothing left running or lying about: terminal shells get SIGKILL 3 s after SIGTERM.
        const bool noChildren = waitUntil([] { return childProcesses().isEmpty(); }, 8000);
        QVERIFY2(violations.isEmpty(), qPrintable(report));
        QVERIFY2(noChildren, qPrintable(QStringLiteral("child processes left: %1").arg(childProcesses().size())));
        QVERIFY2(leftovers().isEmpty(), qPrintable(leftovers().join(QLatin1Char(' '))));
    }

    void registersFirst_data()
    {
        QTest::addColumn<int>("greeting");
        QTest::newRow("server says nothing") << int(PlainServer::Greeting::Nothing);
        QTest::newRow("bare hello") << int(PlainServer::Greeting::BareHello);
        QTest::newRow("unknown type first") << int(PlainServer::Greeting::UnknownType);
    }

    // Whatever the server says first, the agent registers at once with its profile.
    void registersFirst()
    {
        QFETCH(int, greeting);
        m_server->setGreeting(PlainServer::Greeting(greeting));
        DiagRecorder log;
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register"), 5000));
        const PlainServer::Frame first = m_server->frames().first();
        QCOMPARE(first.connection, 1);
        QCOMPARE(first.message, registration(m_agent->repo.path(), m_agent->projects()));
        QVERIFY2(first.sinceOpenMs < 1000, qPrintable(QString::number(first.sinceOpenMs)));
        QCOMPARE(m_server->requestURL(1).path(), QStringLiteral("/v1/ws/agent"));
        QCOMPARE(m_server->requestURL(1).query(), QStringLiteral("agentId=") + kAgentId);
        QCOMPARE(m_server->authorization(1), std::optional<QByteArray>("Bearer " + kToken.toUtf8()));
        // Nothing but the registration, whatever came first.
        PLAIN_VERIFY(barrier());
        QCOMPARE(typesOf(m_server->frames()),
                 (QStringList{QStringLiteral("agent.register"), QStringLiteral("terminal.error")}));
        QCOMPARE(m_agent->statuses, QStringList{QStringLiteral("Connected as ") + kAgentId});
        const QStringList texts = log.texts();
        if (PlainServer::Greeting(greeting) == PlainServer::Greeting::BareHello) {
            // A bare hello is logged, and that is all it does (the registration, which
            // does not wait for it, may be logged before or after it).
            QVERIFY2(texts.contains(QStringLiteral("received agent.hello")), qPrintable(texts.join('\n')));
            QStringList after = texts.mid(texts.indexOf(QStringLiteral("received agent.hello")));
            after.removeIf([](const QString& text) { return text.startsWith(QLatin1String("register profile=")); });
            QCOMPARE(after,
                     (QStringList{QStringLiteral("received agent.hello"),
                                  QStringLiteral("terminal.error sessionId=barrier-1 projectPath= message=Terminal "
                                                 "session not found.")}));
        } else {
            QVERIFY2(!texts.contains(QStringLiteral("received agent.hello")), qPrintable(texts.join('\n')));
        }
        QCOMPARE(texts.filter(QStringLiteral("register profile=")),
                 QStringList{QStringLiteral("register profile=ios-local actions=[\"build_ios\", \"ai_task\", \"chat\", "
                                            "\"shell\", \"terminal_session\"] projects=[\"") +
                             m_agent->projects().join(QStringLiteral("\", \"")) + QStringLiteral("\"]")});
    }

    void theProgramRegistersFirst_data() { registersFirst_data(); }

    // The same with the program as a user runs it, timed from the socket's opening.
    void theProgramRegistersFirst()
    {
        QFETCH(int, greeting);
        m_server->setGreeting(PlainServer::Greeting(greeting));
        AgentProcess agent;
        agent.agentId = kAgentId;
        agent.token = kToken;
        const QString app = makeProject(agent.repo.path() + QStringLiteral("/App"));
        agent.start(m_server->serverURL(),
                    environment({QStringLiteral("BRINMOOR_PROJECTS=") + app, QStringLiteral("TMPDIR=") + m_tmp}));
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register"), 10000));
        const PlainServer::Frame first = m_server->frames().first();
        QCOMPARE(first.connection, 1);
        QCOMPARE(first.message, registration(agent.repo.path(), {app}));
        QVERIFY2(first.sinceOpenMs < 1000, qPrintable(QString::number(first.sinceOpenMs)));
        QCOMPARE(m_server->requestURL(1).path(), QStringLiteral("/v1/ws/agent"));
        QCOMPARE(m_server->requestURL(1).query(), QStringLiteral("agentId=") + kAgentId);
        QCOMPARE(m_server->authorization(1), std::optional<QByteArray>("Bearer " + kToken.toUtf8()));
        PLAIN_VERIFY(barrier());
        QCOMPARE(typesOf(m_server->frames()),
                 (QStringList{QStringLiteral("agent.register"), QStringLiteral("terminal.error")}));
        if (PlainServer::Greeting(greeting) == PlainServer::Greeting::BareHello)
            QVERIFY2(waitUntil([&] { return agent.logTexts().contains(QStringLiteral("received agent.hello")); }),
                     qPrintable(agent.logTexts().join('\n')));
        QVERIFY(agent.stop());
        QCOMPARE(agent.process.exitCode(), 0);
    }

    // The stand-in's own rules, shown with a client that says what the test tells it:
    // what may repeat passes, and each kind of surprise is noticed.
    void theStandInNoticesWhatItWouldNotExpect()
    {
        PlainServer server;
        QVERIFY(server.listen());
        QWebSocket client;
        const auto connectClient = [&] {
            client.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/v1/ws/agent?agentId=x").arg(server.port())));
            return waitUntil([&] { return client.state() == QAbstractSocket::ConnectedState; });
        };
        qsizetype said = 0;
        const auto say = [&](const char* text) {
            client.sendTextMessage(QString::fromUtf8(text));
            ++said;
            return waitUntil([&] { return server.received() == said; });
        };
        const char* registration =
            R"({"type":"agent.register","profiles":["p"],"projects":[],"createProjectRoot":"/new/root",)"
            R"("actions":[],"taskKinds":["build","ai_task","chat","shell","terminal_session"],)"
            R"("buildTemplate":"","repoRoot":"/r","supportsApproval":true})";
        QVERIFY(connectClient());
        QVERIFY(say(registration));
        QVERIFY(say(R"({"type":"task.log","taskId":"t","line":"workspace.resolve action=shell )"
                    R"(requestedProjectPath=new resolvedWorkingDir=/new/root/"})"));
        QVERIFY(say(R"({"type":"task.started","taskId":"t"})"));
        for (int i = 0; i < 2; ++i) {
            QVERIFY(say(R"({"type":"task.heartbeat","taskId":"t"})"));
            QVERIFY(say(R"({"type":"task.log","taskId":"t","line":""})"));
            QVERIFY(say(R"({"type":"task.commentary","taskId":"t","text":"Done.","replace":true})"));
            QVERIFY(say(R"({"type":"terminal.output","sessionId":"s","projectPath":"P","data":"% "})"));
            QVERIFY(say(R"({"type":"terminal.output","sessionId":"s","projectPath":"P","data":"% ","snapshot":true})"));
        }
        QVERIFY(say(R"({"type":"task.finished","taskId":"t","exitCode":0})"));
        // A shell task in the create-project root has finished: the agent re-registers.
        QVERIFY(say(registration));
        server.expectRegistration();
        QVERIFY(say(registration));
        QCOMPARE(server.violations(), QStringList());

        QVERIFY(say(registration));
        QVERIFY(say(R"({"type":"task.started","taskId":"t"})"));
        QVERIFY(say(R"({"type":"task.log","taskId":"t","line":"workspace.resolve action=shell )"
                    R"(requestedProjectPath=new resolvedWorkingDir=/new/root/"})"));
        QVERIFY(say(R"({"type":"terminal.output","sessionId":"s","projectPath":"P","data":"x","offset":1})"));
        QVERIFY(say(R"({"type":"agent.state","tasks":[],"terminals":[]})"));
        QVERIFY(say(R"({"type":"task.failed","taskId":"u","error":"e","errorCode":"E","exitCode":"1","seq":7})"));
        QVERIFY(say(R"({"type":"task.finished","taskId":"v","exitCode":2})"));
        QVERIFY(say(R"({"type":"terminal.closed","sessionId":"s","projectPath":"P"})"));
        QVERIFY(say(R"({"type":"terminal.closed","sessionId":"s","projectPath":"P","exitCode":0})"));
        QVERIFY(say("[1]"));
        client.sendBinaryMessage("{}");
        ++said;
        QVERIFY(waitUntil([&] { return server.received() == said; }));
        // A new connection that begins by saying again what the last one said.
        client.close();
        QVERIFY(waitUntil([&] { return client.state() == QAbstractSocket::UnconnectedState; }));
        QVERIFY(connectClient());
        QVERIFY(say(R"({"type":"task.log","taskId":"t","line":""})"));
        QVERIFY(say(R"({"type":"terminal.output","sessionId":"s","projectPath":"P","data":"% "})"));
        QVERIFY(say(registration));

        QStringList reasons;
        for (const QString& violation : server.violations())
            reasons.append(violation.left(violation.lastIndexOf(QStringLiteral(": "))));
        QCOMPARE(reasons,
                 (QStringList{
                     QStringLiteral("connection 1: \"agent.register\" again on the connection without a reason"),
                     QStringLiteral("connection 1: sent twice: task.started of task t"),
                     QStringLiteral("connection 1: sent twice: the line \"workspace.resolve action=shell "
                                    "requestedProjectPath=new resolvedWorkingDir=/new/root/\" of task t"),
                     QStringLiteral("connection 1: member \"offset\" is not in the row of terminal.output"),
                     QStringLiteral("connection 1: a message type the protocol does not have"),
                     QStringLiteral("connection 1: member \"exitCode\" has the wrong JSON type"),
                     QStringLiteral("connection 1: member \"seq\" is not in the row of task.failed"),
                     QStringLiteral("connection 1: \"exitCode\" is not 0"),
                     QStringLiteral("connection 1: a second \"terminal.closed\" of session s"),
                     QStringLiteral("connection 1: a frame that is not one JSON object"),
                     QStringLiteral("connection 1: a binary frame"),
                     QStringLiteral("connection 2: the first frame of the connection is not \"agent.register\""),
                     QStringLiteral("connection 2: sent again: it was sent on connection 1 already"),
                 }));
    }

    void heartbeatsOnlyWhileATaskRuns()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        // The heartbeat timer, started with the connection, has fired several times by now.
        waitForTimerTicks(kQuick.heartbeatMilliseconds, 5);
        PLAIN_VERIFY(barrier());
        QCOMPARE(m_server->messages(QStringLiteral("task.heartbeat")).size(), 0);
        shell(QStringLiteral("t"), QStringLiteral("sleep 30"));
        PLAIN_VERIFY(
            m_server->waitFor([](const QJsonObject& m) { return m.value("type") == "task.heartbeat"; }, 5000, 2));
        for (const QJsonObject& beat : m_server->messages(QStringLiteral("task.heartbeat")))
            QCOMPARE(beat, (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.heartbeat")},
                                        {QStringLiteral("taskId"), QStringLiteral("t")}}));
        m_server->cancel(QStringLiteral("t"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("t")));
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        // Idle again: no more beats.
        PLAIN_VERIFY(barrier());
        const qsizetype beats = m_server->messages(QStringLiteral("task.heartbeat")).size();
        waitForTimerTicks(kQuick.heartbeatMilliseconds, 5);
        PLAIN_VERIFY(barrier());
        QCOMPARE(m_server->messages(QStringLiteral("task.heartbeat")).size(), beats);
    }

    void shellAndBuildTasks()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        const QString app = m_agent->path(QStringLiteral("App"));

        // Output lines, the empty one after the last newline included.
        shell(QStringLiteral("s1"), QStringLiteral("printf 'one\\ntwo\\n'"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.finished"), QStringLiteral("s1")));
        QCOMPARE(
            trace(QStringLiteral("s1")),
            (QStringList{resolveLine(QStringLiteral("shell"), QStringLiteral("App"), app),
                         QStringLiteral("task.started"), QStringLiteral("task.log one"), QStringLiteral("task.log two"),
                         QStringLiteral("task.log "), QStringLiteral("task.finished 0")}));
        QCOMPARE(m_server->messages(QStringLiteral("task.started"), QStringLiteral("s1")).first(),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.started")},
                              {QStringLiteral("taskId"), QStringLiteral("s1")}}));
        QCOMPARE(m_server->messages(QStringLiteral("task.finished"), QStringLiteral("s1")).first(),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.finished")},
                              {QStringLiteral("taskId"), QStringLiteral("s1")},
                              {QStringLiteral("exitCode"), 0}}));
        QVERIFY(waitUntil([&] { return m_agent->statuses.contains(QStringLiteral("Ready: ") + kAgentId); }));

        // A command that fails.
        shell(QStringLiteral("s2"), QStringLiteral("exit 3"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("s2")));
        QCOMPARE(trace(QStringLiteral("s2")),
                 (QStringList{resolveLine(QStringLiteral("shell"), QStringLiteral("App"), app),
                              QStringLiteral("task.started"),
                              QStringLiteral("task.failed COMMAND_EXIT_NONZERO 3 command exited with status 3")}));
        QCOMPARE(m_server->messages(QStringLiteral("task.failed"), QStringLiteral("s2")).first(),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.failed")},
                              {QStringLiteral("taskId"), QStringLiteral("s2")},
                              {QStringLiteral("error"), QStringLiteral("command exited with status 3")},
                              {QStringLiteral("errorCode"), QStringLiteral("COMMAND_EXIT_NONZERO")},
                              {QStringLiteral("exitCode"), 3}}));

        // A build: the repository's deploy.sh, run in the repository root with the project.
        const QString deploy = test::writeFile(m_agent->path(QStringLiteral("deploy.sh")),
                                               "#!/bin/zsh -f\nprint -r -- \"deploy $1 $2\"\n");
        QVERIFY(QFile::setPermissions(deploy, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        m_server->assign(QStringLiteral("b1"), {{QStringLiteral("action"), QStringLiteral("build_ios")},
                                                {QStringLiteral("projectPath"), QStringLiteral("App")}});
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.finished"), QStringLiteral("b1")));
        QCOMPARE(trace(QStringLiteral("b1")),
                 (QStringList{resolveLine(QStringLiteral("build_ios"), QStringLiteral("App"), m_agent->repo.path()),
                              QStringLiteral("task.started"), QStringLiteral("task.log deploy App --no-password"),
                              QStringLiteral("task.log "), QStringLiteral("task.finished 0")}));

        // Tasks that cannot be resolved are refused, and nothing starts.
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        m_server->assign(QStringLiteral("b2"), {{QStringLiteral("action"), QStringLiteral("build_ios")}});
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("b2")));
        QCOMPARE(m_server->messages(QStringLiteral("task.failed"), QStringLiteral("b2")).first(),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.failed")},
                              {QStringLiteral("taskId"), QStringLiteral("b2")},
                              {QStringLiteral("error"), QStringLiteral("Missing projectPath")},
                              {QStringLiteral("errorCode"), QStringLiteral("AGENT_CONFIG_INVALID")},
                              {QStringLiteral("exitCode"), 1}}));
        QCOMPARE(trace(QStringLiteral("b2")).size(), 1);
        shell(QStringLiteral("s3"), QStringLiteral("echo never"), QStringLiteral("Nowhere"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("s3")));
        QCOMPARE(
            trace(QStringLiteral("s3")),
            QStringList{QStringLiteral("task.failed AGENT_CONFIG_INVALID 1 Project path does not exist: Nowhere")});
        QVERIFY(!m_agent->runtime->currentTaskId());
    }

    void busyCancelAndTimeOut()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        const QString app = m_agent->path(QStringLiteral("App"));
        DiagRecorder log;
        shell(QStringLiteral("long"), QStringLiteral("sleep 30"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.started"), QStringLiteral("long")));
        const QString started = QStringLiteral("runTask process started taskId=long pid=");
        QVERIFY(waitUntil([&] { return loggedNumber(log, started) > 0; }));
        const qint64 pid = loggedNumber(log, started);

        // A second task while one runs is refused; the first goes on.
        shell(QStringLiteral("second"), QStringLiteral("echo no"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("second")));
        QCOMPARE(m_server->messages(QStringLiteral("task.failed"), QStringLiteral("second")).first(),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.failed")},
                              {QStringLiteral("taskId"), QStringLiteral("second")},
                              {QStringLiteral("error"), QStringLiteral("agent is busy")},
                              {QStringLiteral("errorCode"), QStringLiteral("AGENT_BUSY")},
                              {QStringLiteral("exitCode"), 1}}));
        QCOMPARE(trace(QStringLiteral("second")).size(), 1);
        // A cancel for another task changes nothing either.
        m_server->cancel(QStringLiteral("second"));
        PLAIN_VERIFY(barrier());
        QVERIFY(processAlive(pid));
        QCOMPARE(m_agent->runtime->currentTaskId(), std::optional<QString>(QStringLiteral("long")));
        QCOMPARE(trace(QStringLiteral("long")),
                 (QStringList{resolveLine(QStringLiteral("shell"), QStringLiteral("App"), app),
                              QStringLiteral("task.started")}));

        // Cancelled: at once "task.cancelled" 130, then the terminated child's own end.
        m_server->cancel(QStringLiteral("long"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("long")));
        QCOMPARE(m_server->messages(QStringLiteral("task.cancelled"), QStringLiteral("long")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancelled")},
                              {QStringLiteral("taskId"), QStringLiteral("long")},
                              {QStringLiteral("exitCode"), 130}}));
        QCOMPARE(trace(QStringLiteral("long")).mid(2),
                 (QStringList{QStringLiteral("task.cancelled 130"),
                              QStringLiteral("task.failed COMMAND_EXIT_NONZERO 15 command exited with status 15")}));
        QVERIFY(waitUntil([&] { return !processAlive(pid); }, 2000));
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));

        // The time limit is reported as a cancellation.
        shell(QStringLiteral("slow"), QStringLiteral("sleep 30"), QStringLiteral("App"), 1);
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("slow")));
        QCOMPARE(trace(QStringLiteral("slow")),
                 (QStringList{resolveLine(QStringLiteral("shell"), QStringLiteral("App"), app),
                              QStringLiteral("task.started"), QStringLiteral("task.cancelled 130"),
                              QStringLiteral("task.failed COMMAND_EXIT_NONZERO 15 command exited with status 15")}));
        qint64 startedAt = -1;
        qint64 cancelledAt = -1;
        for (const PlainServer::Frame& frame : m_server->frames()) {
            if (frame.message.value(QStringLiteral("taskId")) == QStringLiteral("slow")) {
                if (frame.type() == QLatin1String("task.started"))
                    startedAt = frame.sinceOpenMs;
                else if (frame.type() == QLatin1String("task.cancelled"))
                    cancelledAt = frame.sinceOpenMs;
            }
        }
        QVERIFY2(cancelledAt - startedAt >= 900 && cancelledAt - startedAt < 5000,
                 qPrintable(QStringLiteral("cancelled %1 ms after the start").arg(cancelledAt - startedAt)));
    }

    void chats()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        const QString app = m_agent->path(QStringLiteral("App"));
        const auto chat = [&](const QString& taskId, const QString& system, const QString& conversation) {
            m_server->assign(taskId, {{QStringLiteral("action"), QStringLiteral("chat")},
                                      {QStringLiteral("system"), system},
                                      {QStringLiteral("projectPath"), QStringLiteral("App")},
                                      {QStringLiteral("prompt"), QStringLiteral("How many files?")},
                                      {QStringLiteral("conversationId"), conversation},
                                      {QStringLiteral("approvalMode"), QStringLiteral("on_request")}});
        };
        const auto chunks = [&](const QString& taskId) {
            QString text;
            for (const QJsonObject& m : m_server->messages(QStringLiteral("task.chat.chunk"), taskId))
                text += m.value(QStringLiteral("chunk")).toString();
            return text;
        };
        const auto conversations = [&](const QString& taskId) {
            QStringList ids;
            for (const PlainServer::Frame& frame : m_server->frames()) {
                if (frame.message.value(QStringLiteral("taskId")) == taskId &&
                    frame.message.contains(QStringLiteral("conversationId")))
                    ids.append(frame.message.value(QStringLiteral("conversationId")).toString());
            }
            ids.removeDuplicates();
            return ids;
        };

        // Claude: the answer streamed, then the final text and the end.
        writeFake(QStringLiteral("claude.stream"),
                  R"({"type":"system","subtype":"init","session_id":"s1"})"
                  "\n"
                  R"({"type":"assistant","message":{"id":"msg_1","content":[{"type":"text","text":"Two files."}]}})"
                  "\n"
                  R"({"type":"result","subtype":"success","is_error":false,"result":"Two files."})"
                  "\n");
        chat(QStringLiteral("c1"), QStringLiteral("claude"), QStringLiteral("conv-1"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.finished"), QStringLiteral("c1")));
        QCOMPARE(chunks(QStringLiteral("c1")), QStringLiteral("Two files."));
        QCOMPARE(m_server->messages(QStringLiteral("task.chat.final"), QStringLiteral("c1")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.chat.final")},
                              {QStringLiteral("taskId"), QStringLiteral("c1")},
                              {QStringLiteral("conversationId"), QStringLiteral("conv-1")},
                              {QStringLiteral("text"), QStringLiteral("Two files.")}}));
        QCOMPARE(conversations(QStringLiteral("c1")), QStringList{QStringLiteral("conv-1")});
        QStringList c1 = trace(QStringLiteral("c1"));
        c1.removeAll(QStringLiteral("task.chat.chunk"));
        QCOMPARE(c1, (QStringList{resolveLine(QStringLiteral("chat"), QStringLiteral("App"), app),
                                  QStringLiteral("task.started"), QStringLiteral("task.chat.final"),
                                  QStringLiteral("task.finished 0")}));

        // Codex: two messages, one answer.
        writeFake(QStringLiteral("codex.stream"),
                  codexAgentMessages({QStringLiteral("First."), QStringLiteral("Second.")}));
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        chat(QStringLiteral("c2"), QStringLiteral("codex"), QStringLiteral("conv-2"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.finished"), QStringLiteral("c2")));
        QCOMPARE(chunks(QStringLiteral("c2")), QStringLiteral("First.\nSecond."));
        QCOMPARE(m_server->messages(QStringLiteral("task.chat.final"), QStringLiteral("c2")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.chat.final")},
                              {QStringLiteral("taskId"), QStringLiteral("c2")},
                              {QStringLiteral("conversationId"), QStringLiteral("conv-2")},
                              {QStringLiteral("text"), QStringLiteral("First.\nSecond.")}}));
        QCOMPARE(conversations(QStringLiteral("c2")), QStringList{QStringLiteral("conv-2")});

        // A tool that fails: its error output, the chat error, then the failure.
        writeFake(QStringLiteral("claude.stderr"), "boom");
        writeFake(QStringLiteral("claude.exit"), "2");
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        chat(QStringLiteral("c3"), QStringLiteral("claude"), QStringLiteral("conv-3"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("c3")));
        QCOMPARE(m_server->messages(QStringLiteral("task.chat.error"), QStringLiteral("c3")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.chat.error")},
                              {QStringLiteral("taskId"), QStringLiteral("c3")},
                              {QStringLiteral("conversationId"), QStringLiteral("conv-3")},
                              {QStringLiteral("message"), QStringLiteral("command exited with status 2")}}));
        QStringList c3 = trace(QStringLiteral("c3"));
        c3.removeAll(QStringLiteral("task.chat.chunk"));
        QCOMPARE(c3.mid(c3.indexOf(QStringLiteral("task.log boom"))),
                 (QStringList{QStringLiteral("task.log boom"), QStringLiteral("task.chat.error"),
                              QStringLiteral("task.failed COMMAND_EXIT_NONZERO 2 command exited with status 2")}));
        QVERIFY(m_server->messages(QStringLiteral("task.chat.final"), QStringLiteral("c3")).isEmpty());
    }

    void proposalsApprovedAndRejected()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        const QString greeting = m_agent->path(QStringLiteral("App/greeting.txt"));
        test::writeFile(greeting, "hello\n");
        writeFake(QStringLiteral("codex.script"), "print bye > greeting.txt\n");
        writeFake(QStringLiteral("codex.stream"), codexAgentMessages({kExplanation}));
        const auto apply = [&](const QString& taskId) {
            m_server->assign(taskId, {{QStringLiteral("action"), QStringLiteral("ai_task")},
                                      {QStringLiteral("system"), QStringLiteral("codex")},
                                      {QStringLiteral("mode"), QStringLiteral("apply")},
                                      {QStringLiteral("approvalMode"), QStringLiteral("on_request")},
                                      {QStringLiteral("projectPath"), QStringLiteral("App")},
                                      {QStringLiteral("prompt"), QStringLiteral("say bye")},
                                      {QStringLiteral("timeoutSec"), 60}});
        };

        apply(QStringLiteral("p1"));
        const std::optional<QJsonObject> awaiting =
            m_server->waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("p1"));
        PLAIN_VERIFY(awaiting);
        QCOMPARE(awaiting->value(QStringLiteral("proposalFiles")).toArray(), strings({QStringLiteral("greeting.txt")}));
        QCOMPARE(awaiting->value(QStringLiteral("proposalSummary")).toString(), kExplanation);
        QCOMPARE(awaiting->value(QStringLiteral("proposalCommentary")).toString(), kExplanation);
        QVERIFY(awaiting->value(QStringLiteral("proposalDiff")).toString().contains(QStringLiteral("-hello\n+bye")));
        QCOMPARE(awaiting->value(QStringLiteral("proposalId")).toString().size(), 36);
        // The choice of files is our relay's clients' alone.
        QVERIFY(!awaiting->contains(QStringLiteral("fileChoice")));
        QCOMPARE(m_server->messages(QStringLiteral("task.progress"), QStringLiteral("p1")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.progress")},
                              {QStringLiteral("taskId"), QStringLiteral("p1")},
                              {QStringLiteral("phase"), QStringLiteral("prepare")},
                              {QStringLiteral("message"), QStringLiteral("Preparing proposed changes")},
                              {QStringLiteral("percent"), 5}}));
        QCOMPARE(m_server->messages(QStringLiteral("task.artifact"), QStringLiteral("p1")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.artifact")},
                              {QStringLiteral("taskId"), QStringLiteral("p1")},
                              {QStringLiteral("kind"), QStringLiteral("proposal")},
                              {QStringLiteral("summary"), kExplanation},
                              {QStringLiteral("mimeType"), QStringLiteral("text/x-diff")}}));
        // Nothing is applied before the phone says so.
        QCOMPARE(test::readFile(greeting), QByteArray("hello\n"));
        m_server->approval(QStringLiteral("p1"), QStringLiteral("approve"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.finished"), QStringLiteral("p1")));
        QCOMPARE(m_server->messages(QStringLiteral("task.progress"), QStringLiteral("p1")).value(1),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.progress")},
                              {QStringLiteral("taskId"), QStringLiteral("p1")},
                              {QStringLiteral("phase"), QStringLiteral("apply")},
                              {QStringLiteral("message"), QStringLiteral("Applying approved changes")},
                              {QStringLiteral("percent"), 75}}));
        QCOMPARE(m_server->messages(QStringLiteral("task.artifact"), QStringLiteral("p1")).value(1),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.artifact")},
                              {QStringLiteral("taskId"), QStringLiteral("p1")},
                              {QStringLiteral("kind"), QStringLiteral("result")},
                              {QStringLiteral("summary"),
                               QString(QStringLiteral("Applied the approved changes to 1 file.\n\n") + kExplanation)},
                              {QStringLiteral("mimeType"), QStringLiteral("text/plain")}}));
        const QStringList p1 = trace(QStringLiteral("p1"));
        QCOMPARE(p1.mid(p1.size() - 4),
                 (QStringList{QStringLiteral("task.log proposal.approval approved"), QStringLiteral("task.progress"),
                              QStringLiteral("task.artifact"), QStringLiteral("task.finished 0")}));
        QCOMPARE(test::readFile(greeting), QByteArray("bye\n"));

        // Rejected: the project stays as it is.
        writeFake(QStringLiteral("codex.script"), "print ciao > greeting.txt\n");
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        apply(QStringLiteral("p2"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("p2")));
        m_server->approval(QStringLiteral("p2"), QStringLiteral("reject"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.failed"), QStringLiteral("p2")));
        QCOMPARE(m_server->messages(QStringLiteral("task.failed"), QStringLiteral("p2")).value(0),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.failed")},
                              {QStringLiteral("taskId"), QStringLiteral("p2")},
                              {QStringLiteral("error"), QStringLiteral("changes rejected by client approval")},
                              {QStringLiteral("errorCode"), QStringLiteral("APPROVAL_REJECTED")},
                              {QStringLiteral("exitCode"), 1}}));
        const QStringList p2 = trace(QStringLiteral("p2"));
        QCOMPARE(p2.mid(p2.size() - 2),
                 (QStringList{QStringLiteral("task.log proposal.approval rejected_or_timed_out"),
                              QStringLiteral("task.failed APPROVAL_REJECTED 1 changes rejected by client approval")}));
        QCOMPARE(test::readFile(greeting), QByteArray("bye\n"));
        QVERIFY(m_server->messages(QStringLiteral("task.finished"), QStringLiteral("p2")).isEmpty());
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId() && leftovers().isEmpty(); }));
    }

    // The projects under the repository root are listed to our relay's clients only: asked
    // as they ask, the agent says nothing.
    void projectsAreNotListed()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        m_server->sendOutsideTheProtocol({{QStringLiteral("type"), QStringLiteral("projects.list")}});
        PLAIN_VERIFY(barrier());
        // Whatever the agent read in the meantime it has reported by the next round trip.
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::processEvents();
        PLAIN_VERIFY(barrier());
        QCOMPARE(typesOf(m_server->frames()),
                 (QStringList{QStringLiteral("agent.register"), QStringLiteral("terminal.error"),
                              QStringLiteral("terminal.error")}));
    }

    void terminals()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        DiagRecorder log;
        const QString term = m_agent->path(QStringLiteral("Term"));
        QVERIFY(QDir().mkpath(term + QStringLiteral("/Documents")));
        test::writeFile(term + QStringLiteral("/Docker.txt"), "x");
        const auto event = [](const char* type, const QString& sessionId, const QString& project) {
            return QJsonObject{{QStringLiteral("type"), QLatin1String(type)},
                               {QStringLiteral("sessionId"), sessionId},
                               {QStringLiteral("projectPath"), project}};
        };

        // Line mode: opened, then the greeting.
        m_server->terminal(QStringLiteral("terminal.open"), {{QStringLiteral("sessionId"), QStringLiteral("line")},
                                                             {QStringLiteral("projectPath"), QStringLiteral("Term")}});
        QJsonObject opened = event("terminal.opened", QStringLiteral("line"), QStringLiteral("Term"));
        opened.insert(QStringLiteral("status"), QStringLiteral("running"));
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("terminal.output")));
        QCOMPARE(terminalEvents(QStringLiteral("terminal.opened"), QStringLiteral("line")), QList<QJsonObject>{opened});
        QJsonObject greetingEvent = event("terminal.output", QStringLiteral("line"), QStringLiteral("Term"));
        greetingEvent.insert(QStringLiteral("data"), QString(QStringLiteral("[terminal started in ") + term +
                                                             QStringLiteral("]\n[try: pwd, ls, codex, claude]\n")));
        QCOMPARE(terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("line")).first(), greetingEvent);

        // Input in Base64; the shell does not echo it, its result comes back (the terminal
        // ends lines with CR LF).
        input(QStringLiteral("line"), "echo plain-$((6*7))\n");
        PLAIN_VERIFY(
            waitUntil([&] { return liveOutput(QStringLiteral("line"), 1).contains(QStringLiteral("plain-42\r\n")); }));
        QVERIFY(!liveOutput(QStringLiteral("line"), 1).contains(QStringLiteral("echo")));

        // Resize, completion.
        m_server->terminal(QStringLiteral("terminal.resize"), {{QStringLiteral("sessionId"), QStringLiteral("line")},
                                                               {QStringLiteral("cols"), 100},
                                                               {QStringLiteral("rows"), 30}});
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("terminal.status")));
        QJsonObject status = event("terminal.status", QStringLiteral("line"), QStringLiteral("Term"));
        status.insert(QStringLiteral("status"), QStringLiteral("running"));
        status.insert(QStringLiteral("message"), QStringLiteral("Terminal ready (100x30)"));
        QCOMPARE(m_server->messages(QStringLiteral("terminal.status")), QList<QJsonObject>{status});
        m_server->terminal(QStringLiteral("terminal.complete"), {{QStringLiteral("sessionId"), QStringLiteral("line")},
                                                                 {QStringLiteral("line"), QStringLiteral("ls Doc")},
                                                                 {QStringLiteral("cursor"), 6}});
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("terminal.completion")));
        QJsonObject completion = event("terminal.completion", QStringLiteral("line"), QStringLiteral("Term"));
        completion.insert(QStringLiteral("replacementStart"), 3);
        completion.insert(QStringLiteral("replacementEnd"), 6);
        completion.insert(QStringLiteral("replacement"), QStringLiteral("Doc"));
        completion.insert(QStringLiteral("suggestions"),
                          strings({QStringLiteral("Docker.txt"), QStringLiteral("Documents/")}));
        QCOMPARE(m_server->messages(QStringLiteral("terminal.completion")), QList<QJsonObject>{completion});

        // Attach: opened again, and the output so far replayed, without the greeting.
        PLAIN_VERIFY(barrier());
        const QString before = liveOutput(QStringLiteral("line"), 1);
        m_server->terminal(QStringLiteral("terminal.attach"), {{QStringLiteral("sessionId"), QStringLiteral("line")}});
        PLAIN_VERIFY(barrier());
        QCOMPARE(terminalEvents(QStringLiteral("terminal.opened"), QStringLiteral("line")),
                 (QList<QJsonObject>{opened, opened}));
        QString replayed;
        for (const QJsonObject& m : terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("line"))) {
            if (!m.contains(QStringLiteral("snapshot")))
                continue;
            QJsonObject shape = event("terminal.output", QStringLiteral("line"), QStringLiteral("Term"));
            shape.insert(QStringLiteral("data"), m.value(QStringLiteral("data")));
            shape.insert(QStringLiteral("snapshot"), true);
            QCOMPARE(m, shape);
            replayed += m.value(QStringLiteral("data")).toString();
        }
        QCOMPARE(replayed, before);

        // A flood: one piece per read of at most 16 KiB, and an attach replays the newest
        // 128 of them, however large.
        input(QStringLiteral("line"), "head -c 3000000 /dev/zero | tr '\\0' y; echo; echo flood-$((6*7))\n");
        PLAIN_VERIFY(waitUntil(
            [&] { return liveOutput(QStringLiteral("line"), 1).contains(QStringLiteral("flood-42")); }, 30000));
        PLAIN_VERIFY(barrier());
        QStringList pieces;
        for (const QJsonObject& m : terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("line"))) {
            if (!m.contains(QStringLiteral("snapshot")))
                pieces.append(m.value(QStringLiteral("data")).toString());
        }
        QVERIFY(pieces.size() > 128);
        for (const QString& piece : std::as_const(pieces))
            QVERIFY2(piece.size() <= 16 * 1024, qPrintable(QString::number(piece.size())));
        const auto replays = [&] {
            QStringList replay;
            for (const QJsonObject& m : terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("line"))) {
                if (m.contains(QStringLiteral("snapshot")))
                    replay.append(m.value(QStringLiteral("data")).toString());
            }
            return replay;
        };
        const qsizetype replayedBefore = replays().size();
        m_server->terminal(QStringLiteral("terminal.attach"), {{QStringLiteral("sessionId"), QStringLiteral("line")}});
        PLAIN_VERIFY(barrier());
        QCOMPARE(replays().mid(replayedBefore), pieces.mid(pieces.size() - 128));

        // Close: the shell ends and says so.
        const qint64 linePid = loggedNumber(log, QStringLiteral("terminal.open sessionId=line projectPath=Term pid="));
        QVERIFY(linePid > 0);
        m_server->terminal(QStringLiteral("terminal.close"), {{QStringLiteral("sessionId"), QStringLiteral("line")}});
        const std::optional<QJsonObject> closed = m_server->waitForType(QStringLiteral("terminal.closed"));
        PLAIN_VERIFY(closed);
        QVERIFY(closed->value(QStringLiteral("exitCode")).isDouble());
        QJsonObject closedShape = event("terminal.closed", QStringLiteral("line"), QStringLiteral("Term"));
        closedShape.insert(QStringLiteral("exitCode"), closed->value(QStringLiteral("exitCode")));
        QCOMPARE(*closed, closedShape);
        QVERIFY(waitUntil([&] { return !processAlive(linePid); }));

        // A folder that is not there: the shell starts in the repository root, and this
        // server, which asked for no extensions, is not told "projectPathMissing".
        m_server->terminal(QStringLiteral("terminal.open"), {{QStringLiteral("sessionId"), QStringLiteral("gone")},
                                                             {QStringLiteral("projectPath"), QStringLiteral("Gone")}});
        PLAIN_VERIFY(m_server->waitFor([](const QJsonObject& m) {
            return m.value("type") == "terminal.output" && m.value("sessionId") == "gone";
        }));
        QJsonObject goneOpened = event("terminal.opened", QStringLiteral("gone"), QStringLiteral("Gone"));
        goneOpened.insert(QStringLiteral("status"), QStringLiteral("running"));
        QCOMPARE(terminalEvents(QStringLiteral("terminal.opened"), QStringLiteral("gone")),
                 QList<QJsonObject>{goneOpened});
        QCOMPARE(terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("gone")).first().value("data"),
                 QJsonValue(QString(QStringLiteral("[terminal started in ") + m_agent->repo.path() +
                                    QStringLiteral("]\n[try: pwd, ls, codex, claude]\n"))));
        input(QStringLiteral("gone"), "pwd\n");
        PLAIN_VERIFY(waitUntil([&] {
            return liveOutput(QStringLiteral("gone"), 1).contains(m_agent->repo.path() + QStringLiteral("\r\n"));
        }));
        m_server->terminal(QStringLiteral("terminal.close"), {{QStringLiteral("sessionId"), QStringLiteral("gone")}});
        PLAIN_VERIFY(m_server->waitFor([](const QJsonObject& m) {
            return m.value("type") == "terminal.closed" && m.value("sessionId") == "gone";
        }));

        // Interactive: opened with its mode, no greeting; 2 MB of output flow although
        // nobody ever acknowledges anything.
        QVERIFY(QDir().mkpath(m_agent->path(QStringLiteral("Inter"))));
        m_server->terminal(QStringLiteral("terminal.open"), {{QStringLiteral("sessionId"), QStringLiteral("inter")},
                                                             {QStringLiteral("projectPath"), QStringLiteral("Inter")},
                                                             {QStringLiteral("mode"), QStringLiteral("interactive")}});
        PLAIN_VERIFY(m_server->waitFor([](const QJsonObject& m) {
            return m.value("type") == "terminal.opened" && m.value("sessionId") == "inter";
        }));
        QJsonObject interOpened = event("terminal.opened", QStringLiteral("inter"), QStringLiteral("Inter"));
        interOpened.insert(QStringLiteral("status"), QStringLiteral("running"));
        interOpened.insert(QStringLiteral("mode"), QStringLiteral("interactive"));
        QCOMPARE(terminalEvents(QStringLiteral("terminal.opened"), QStringLiteral("inter")),
                 QList<QJsonObject>{interOpened});
        constexpr qsizetype kBytes = 2'000'000;
        input(QStringLiteral("inter"),
              "printf 'BEGIN''-MARK\\n'; head -c 2000000 /dev/zero | tr '\\000' Q; printf '\\nEND''-MARK\\n'\n");
        // Read as it comes, each output once.
        QString text;
        qsizetype seen = 0;
        const bool allThere = waitUntil(
            [&] {
                const QList<QJsonObject> outputs =
                    terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("inter"));
                for (; seen < outputs.size(); ++seen)
                    text += outputs[seen].value(QStringLiteral("data")).toString();
                return text.contains(QStringLiteral("END-MARK\r\n"));
            },
            30000);
        const qsizetype begin = text.indexOf(QStringLiteral("BEGIN-MARK\r\n"));
        PLAIN_VERIFY(allThere && begin >= 0);
        QVERIFY(!text.contains(QStringLiteral("[terminal started in")));
        const qsizetype from = begin + qsizetype(strlen("BEGIN-MARK\r\n"));
        const QString body = text.mid(from, text.indexOf(QStringLiteral("\r\nEND-MARK")) - from);
        QCOMPARE(body.size(), kBytes);
        QCOMPARE(body.count(QLatin1Char('Q')), kBytes);

        // Closing an interactive session ends its shell, silently.
        const qint64 interPid =
            loggedNumber(log, QStringLiteral("terminal.open.interactive sessionId=inter projectPath=Inter pid="));
        QVERIFY(interPid > 0);
        m_server->terminal(QStringLiteral("terminal.close"), {{QStringLiteral("sessionId"), QStringLiteral("inter")}});
        QVERIFY(waitUntil([&] { return !processAlive(interPid); }, 6000));
        PLAIN_VERIFY(barrier());
        QVERIFY(terminalEvents(QStringLiteral("terminal.closed"), QStringLiteral("inter")).isEmpty());
    }

    // The server drops the connection while a task runs: the task is stopped, the agent
    // reconnects at once and registers, and nothing of before is said again.
    void aLostConnectionStopsTheTask()
    {
        // The usual 3 s between attempts: a reconnect "at once" does not wait for them.
        startAgent(ConnectionIntervals{});
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        DiagRecorder log;
        shell(QStringLiteral("t"), QStringLiteral("echo running; sleep 30"));
        PLAIN_VERIFY(m_server->waitFor([](const QJsonObject& m) { return m.value("line") == "running"; }));
        const QString started = QStringLiteral("runTask process started taskId=t pid=");
        const qint64 pid = loggedNumber(log, started);
        QVERIFY(pid > 0);
        QVERIFY(processAlive(pid));

        const qint64 lostAt = m_server->now();
        m_server->closeConnection();
        QVERIFY(waitUntil([&] { return !m_agent->statuses.filter(QStringLiteral("Disconnected: ")).isEmpty(); }));
        QVERIFY2(m_agent->statuses.filter(QStringLiteral("Disconnected: ")).first().size() >
                     qsizetype(strlen("Disconnected: ")),
                 qPrintable(m_agent->statuses.join('\n')));
        QVERIFY(waitUntil([&] { return !processAlive(pid); }, 3000));
        QVERIFY(log.contains(QStringLiteral("stopRunningProcessIfAny terminating taskId=t")));
        PLAIN_VERIFY(m_server->waitForConnections(2, 5000));
        QVERIFY2(m_server->openedAt(2) - lostAt < 1500,
                 qPrintable(QStringLiteral("reconnected after %1 ms").arg(m_server->openedAt(2) - lostAt)));
        PLAIN_VERIFY(waitUntil([&] { return !m_server->framesOf(2).isEmpty(); }));
        QCOMPARE(m_server->framesOf(2).first().message, registration(m_agent->repo.path(), m_agent->projects()));
        QVERIFY(waitUntil([&] { return !m_agent->runtime->currentTaskId(); }));
        PLAIN_VERIFY(barrier());

        // Of the task, the new connection hears at most the stopped child's end; no
        // "task.cancelled" (nobody cancelled it) and nothing again.
        QStringList after;
        for (const PlainServer::Frame& frame : m_server->framesOf(2)) {
            if (frame.message.value(QStringLiteral("taskId")) == QStringLiteral("t") &&
                frame.type() != QLatin1String("task.heartbeat"))
                after.append(json(frame.message));
        }
        const QString end = json({{QStringLiteral("type"), QStringLiteral("task.failed")},
                                  {QStringLiteral("taskId"), QStringLiteral("t")},
                                  {QStringLiteral("error"), QStringLiteral("command exited with status 15")},
                                  {QStringLiteral("errorCode"), QStringLiteral("COMMAND_EXIT_NONZERO")},
                                  {QStringLiteral("exitCode"), 15}});
        QVERIFY2(after.isEmpty() || after == QStringList{end}, qPrintable(after.join('\n')));
        QVERIFY(m_server->messages(QStringLiteral("task.cancelled")).isEmpty());
        for (const PlainServer::Frame& frame : m_server->framesOf(2)) {
            if (frame.type() == QLatin1String("agent.register") || frame.type() == QLatin1String("task.heartbeat"))
                continue;
            for (const PlainServer::Frame& earlier : m_server->framesOf(1))
                QVERIFY2(frame.message != earlier.message, qPrintable(json(frame.message)));
        }

        // The agent is free for the next task.
        shell(QStringLiteral("t2"), QStringLiteral("echo again"));
        PLAIN_VERIFY(m_server->waitForTask(QStringLiteral("task.finished"), QStringLiteral("t2")));
        QCOMPARE(trace(QStringLiteral("t2")),
                 (QStringList{
                     resolveLine(QStringLiteral("shell"), QStringLiteral("App"), m_agent->path(QStringLiteral("App"))),
                     QStringLiteral("task.started"), QStringLiteral("task.log again"), QStringLiteral("task.log "),
                     QStringLiteral("task.finished 0")}));
        QCOMPARE(m_server->connectionCount(), 2);
    }

    // The server goes away and comes back on its port: the agent retries and registers.
    // What a terminal printed meanwhile is not sent when the server is back; an attach
    // replays it.
    void reconnectsAfterTheServerWasAway()
    {
        startAgent();
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("agent.register")));
        const QString away = m_agent->path(QStringLiteral("Away"));
        QVERIFY(QDir().mkpath(away));
        const QByteArray pipe = QFile::encodeName(away + QStringLiteral("/pipe"));
        QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);
        m_server->terminal(QStringLiteral("terminal.open"), {{QStringLiteral("sessionId"), QStringLiteral("away")},
                                                             {QStringLiteral("projectPath"), QStringLiteral("Away")}});
        input(QStringLiteral("away"), "cat pipe\n");
        // Without a reader yet, a non-blocking open fails: the shell's `cat` has it open
        // once this succeeds.
        int writer = -1;
        QVERIFY(waitUntil([&] {
            writer = ::open(pipe.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return writer >= 0;
        }));
        PLAIN_VERIFY(barrier());
        const PtySession* session = m_agent->runtime->terminalSessionManager().session(QStringLiteral("away"));
        QVERIFY(session);

        const quint16 port = m_server->port();
        m_server->close();
        QVERIFY(waitUntil([&] { return !m_agent->statuses.filter(QStringLiteral("Reconnect in 3s: ")).isEmpty(); }));
        QVERIFY2(m_agent->statuses.filter(QStringLiteral("Disconnected: ")).size() == 1,
                 qPrintable(m_agent->statuses.join('\n')));
        QVERIFY2(m_agent->statuses.indexOf(QRegularExpression(QStringLiteral("^Disconnected: "))) <
                     m_agent->statuses.indexOf(QRegularExpression(QStringLiteral("^Reconnect in 3s: .+"))),
                 qPrintable(m_agent->statuses.join('\n')));
        // The terminal prints while no server listens, and the agent reads it.
        const qint64 printed = session->outputOffset();
        const QByteArray mark = "AWAY-MARK\n";
        QCOMPARE(::write(writer, mark.constData(), size_t(mark.size())), mark.size());
        ::close(writer);
        QVERIFY(waitUntil([&] { return session->outputOffset() >= printed + mark.size(); }));

        QCOMPARE(m_server->connectionCount(), 1);
        QVERIFY(m_server->listen(port));
        PLAIN_VERIFY(m_server->waitForConnections(2, 5000));
        PLAIN_VERIFY(waitUntil([&] { return !m_server->framesOf(2).isEmpty(); }));
        QCOMPARE(m_server->framesOf(2).first().message, registration(m_agent->repo.path(), m_agent->projects()));
        QCOMPARE(m_agent->statuses.last(), QStringLiteral("Connected as ") + kAgentId);
        PLAIN_VERIFY(barrier());
        QCOMPARE(typesOf(m_server->framesOf(2)),
                 (QStringList{QStringLiteral("agent.register"), QStringLiteral("terminal.error")}));
        QVERIFY(!liveOutput(QStringLiteral("away")).contains(QStringLiteral("AWAY-MARK")));

        // The session lived on; an attach replays what it printed.
        m_server->terminal(QStringLiteral("terminal.attach"), {{QStringLiteral("sessionId"), QStringLiteral("away")}});
        PLAIN_VERIFY(barrier());
        QString replayed;
        for (const QJsonObject& m : terminalEvents(QStringLiteral("terminal.output"), QStringLiteral("away"))) {
            if (m.contains(QStringLiteral("snapshot")))
                replayed += m.value(QStringLiteral("data")).toString();
        }
        QVERIFY2(replayed.contains(QStringLiteral("AWAY-MARK\r\n")), qPrintable(replayed));
        m_server->terminal(QStringLiteral("terminal.close"), {{QStringLiteral("sessionId"), QStringLiteral("away")}});
        PLAIN_VERIFY(m_server->waitForType(QStringLiteral("terminal.closed")));
    }
};

QTEST_GUILESS_MAIN(TstPlainServer)
#include "tst_plain_server.moc"
