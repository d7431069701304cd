// Sessions started at the desk with the released `claude` and `codex` (scripts/real-tools),
// against fake model servers on loopback: the phone lists them through the relay, reads
// them, continues them with their earlier turns, and the desk takes them back. A session
// a desk process holds is not written to. Skipped ("skipped: tools not installed") when
// the tools cannot be installed.
#include "support/fake_model_server.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/real_tools.h"
#include "support/relay_client.h"
#include "support/test_support.h"

#include <QDateTime>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

#include <list>
#include <memory>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

constexpr int kToolTimeoutMs = 90000;

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

QString compact(const QJsonValue& value)
{
    return QString::fromUtf8(value.isArray() ? QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact)
                                             : QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
}

// The reply, sent only after a few seconds: the tool is busy meanwhile.
FakeModelServer::Reply later(FakeModelServer::Reply reply)
{
    reply.laterPieces = {reply.body};
    reply.body.clear();
    reply.pieceIntervalMs = 4000;
    return reply;
}

bool asksSlowly(const FakeModelServer::Request& request)
{
    return request.body.contains("Answer slowly");
}

} // namespace

class TstDeskRealTools : public QObject, private RealToolsFixture {
    Q_OBJECT

    std::list<QProcess> m_desk;
    int m_requests = 0;

    bool startAll()
    {
        // The desk and the agent share claude's store, as they share the user's home.
        if (!RealToolsFixture::startAll([this](QProcessEnvironment& environment) {
                environment.insert(QStringLiteral("CLAUDE_CONFIG_DIR"), m_home->path() + QStringLiteral("/.claude"));
            }))
            return false;
        m_anthropic->respond = RealTools::messagesAPI([](const FakeModelServer::Request& request) {
            if (asksSlowly(request))
                return later(FakeModelServer::messagesText(QStringLiteral("Slow answer.")));
            return FakeModelServer::messagesText(request.body.contains("Say it again")
                                                     ? QStringLiteral("Still here.")
                                                     : QStringLiteral("Hello from the fake model."));
        });
        m_openai->respond = RealTools::responsesAPI([](const FakeModelServer::Request& request) {
            if (asksSlowly(request))
                return later(FakeModelServer::responsesMessage(QStringLiteral("Slow answer.")));
            return FakeModelServer::responsesMessage(request.body.contains("Say it again")
                                                         ? QStringLiteral("Still here, says codex.")
                                                         : QStringLiteral("Hello from the fake codex model."));
        });
        return true;
    }

    // Starts a tool at the desk: in the project, with the same home as the agent's.
    QProcess& startAtTheDesk(const QString& program, const QStringList& arguments)
    {
        QProcess& desk = m_desk.emplace_back();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(m_environment);
        desk.setProcessEnvironment(environment);
        desk.setWorkingDirectory(project());
        desk.setStandardInputFile(QProcess::nullDevice());
        desk.start(m_toolsBin + QLatin1Char('/') + program, arguments);
        return desk;
    }

    // Runs a tool at the desk to its end: what it printed.
    QByteArray atTheDesk(const QString& program, const QStringList& arguments)
    {
        QProcess& desk = startAtTheDesk(program, arguments);
        if (!waitUntil([&] { return desk.state() == QProcess::NotRunning; }, kToolTimeoutMs))
            return {};
        return desk.readAllStandardOutput();
    }

    // Asks the agent through the relay; its answer to this client.
    std::optional<QJsonObject> ask(const QString& type, const QJsonObject& payload)
    {
        const QString requestId = QStringLiteral("r%1").arg(++m_requests);
        m_phone->send({{QStringLiteral("type"), type},
                       {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                       {QStringLiteral("requestId"), requestId},
                       {QStringLiteral("payload"), payload}});
        return m_phone->waitFor(
            [&](const QJsonObject& m) { return m.value(QStringLiteral("requestId")).toString() == requestId; }, 20000);
    }

    // The project's sessions as listed, each without its time, which is checked apart.
    QStringList listed()
    {
        const std::optional<QJsonObject> answer = ask(QStringLiteral("sessions.list"), {{"projectPath", "App"}});
        if (!answer)
            return {QStringLiteral("no answer")};
        QStringList sessions;
        for (const QJsonValue& value : answer->value(QStringLiteral("sessions")).toArray()) {
            QJsonObject session = value.toObject();
            const QDateTime updated =
                QDateTime::fromString(session.take(QStringLiteral("updatedAt")).toString(), Qt::ISODateWithMs);
            if (!updated.isValid() || qAbs(updated.secsTo(QDateTime::currentDateTimeUtc())) > 600)
                session.insert(QStringLiteral("updatedAt"), QStringLiteral("<not now>"));
            sessions.append(compact(session));
        }
        return sessions;
    }

    // The turns of a session as read back, without their times.
    QStringList history(const QString& tool, const QString& id)
    {
        const std::optional<QJsonObject> answer = ask(QStringLiteral("sessions.read"), {{"tool", tool}, {"id", id}});
        if (!answer)
            return {QStringLiteral("no answer")};
        if (answer->contains(QStringLiteral("error")))
            return {answer->value(QStringLiteral("error")).toString()};
        QStringList items;
        for (const QJsonValue& value : answer->value(QStringLiteral("items")).toArray()) {
            QJsonObject item = value.toObject();
            item.remove(QStringLiteral("at"));
            items.append(compact(item));
        }
        return items;
    }

    // A chat of the phone that continues conversation `id` with `tool`; its end.
    // With `forkOf`, a new conversation `id` that starts as a copy of that session.
    std::optional<QJsonObject> chat(const QString& tool, const QString& id, const QString& prompt,
                                    const QString& forkOf = QString())
    {
        const qsizetype before = m_phone->messages().size();
        QJsonObject payload{{"action", "chat"}, {"system", tool},       {"projectPath", "App"},
                            {"prompt", prompt}, {"conversationId", id}, {"approvalMode", "none"}};
        if (!forkOf.isEmpty())
            payload.insert(QStringLiteral("forkOf"), forkOf);
        m_phone->send({{QStringLiteral("type"), QStringLiteral("task.create")},
                       {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                       {QStringLiteral("payload"), payload}});
        std::optional<QJsonObject> end;
        waitUntil(
            [&] {
                for (qsizetype at = before; at < m_phone->messages().size(); ++at) {
                    const QJsonObject& m = m_phone->messages().at(at);
                    if (typeOf(m) == QLatin1String("task.finished") || typeOf(m) == QLatin1String("task.failed")) {
                        end = m;
                        return true;
                    }
                }
                return false;
            },
            kToolTimeoutMs);
        return end;
    }

    QString resumeCommand(const QString& tool, const QString& id) const
    {
        return QStringLiteral("cd '") + project() + QStringLiteral("' && ") +
               (tool == QLatin1String("codex") ? QStringLiteral("codex resume ") : QStringLiteral("claude --resume ")) +
               id;
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
        for (QProcess& desk : m_desk) {
            if (desk.state() != QProcess::NotRunning)
                waitUntil([&] { return desk.state() == QProcess::NotRunning; }, kToolTimeoutMs);
        }
        m_desk.clear();
        QVERIFY(stopAll());
        m_tmp.reset();
        m_home.reset();
    }

    void aClaudeSessionOfTheDeskGoesToThePhoneAndBack()
    {
        QVERIFY(startAll());
        const QJsonObject desk =
            QJsonDocument::fromJson(
                atTheDesk(QStringLiteral("claude"), {QStringLiteral("-p"), QStringLiteral("Desk question"),
                                                     QStringLiteral("--output-format"), QStringLiteral("json")}))
                .object();
        const QString id = desk.value(QStringLiteral("session_id")).toString();
        QVERIFY2(!id.isEmpty(), qPrintable(compact(desk)));

        QCOMPARE(listed(), QStringList{compact(QJsonObject{{"id", id},
                                                           {"live", QJsonValue::Null},
                                                           {"messages", 1},
                                                           {"resumeCommand", resumeCommand("claude", id)},
                                                           {"startedBy", "desk"},
                                                           {"title", "Desk question"},
                                                           {"tool", "claude"}})});
        QCOMPARE(history(QStringLiteral("claude"), id),
                 (QStringList{R"({"kind":"user","text":"Desk question"})",
                              R"({"kind":"assistant","text":"Hello from the fake model."})"}));

        // The phone goes on with it: the model is given the desk's turn.
        const std::optional<QJsonObject> end = chat(QStringLiteral("claude"), id, QStringLiteral("Say it again"));
        QVERIFY2(end && typeOf(*end) == QLatin1String("task.finished"), qPrintable(m_phone->trace()));
        const QByteArray asked = m_anthropic->requests().last().body;
        QVERIFY(asked.contains("Desk question"));
        QVERIFY(asked.contains("Hello from the fake model."));
        QVERIFY(m_phone->waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("task.chat.final") &&
                   m.value(QStringLiteral("text")).toString() == QLatin1String("Still here.");
        }));
        QCOMPARE(history(QStringLiteral("claude"), id).size(), 4);
        const QString unknown = QStringLiteral("00000000-0000-4000-8000-000000000000");
        QCOMPARE(history(QStringLiteral("claude"), unknown),
                 QStringList{QStringLiteral("no claude session ") + unknown + QStringLiteral(" on this computer")});
        QCOMPARE(history(QStringLiteral("claude"), id).at(2),
                 QStringLiteral(R"({"kind":"user","text":"Say it again"})"));
        QVERIFY(listed().value(0).contains(QLatin1String("\"messages\":2,")));

        // The phone watches while the desk takes it back where the phone left it.
        m_phone->send({{QStringLiteral("type"), QStringLiteral("sessions.watch")},
                       {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                       {QStringLiteral("payload"), QJsonObject{{"tool", "claude"}, {"id", id}}}});
        QVERIFY(waitUntil(
            [&] { return !m_agent->logTexts().filter(QStringLiteral("sessions.watch tool=claude id=")).isEmpty(); }));
        QVERIFY(!atTheDesk(QStringLiteral("claude"),
                           {QStringLiteral("-p"), QStringLiteral("--resume"), id, QStringLiteral("Back at the desk")})
                     .isEmpty());
        QVERIFY(m_anthropic->requests().last().body.contains("Say it again"));
        QStringList grown;
        QVERIFY2(waitUntil([&] {
                     grown.clear();
                     for (const QJsonObject& m : m_phone->messages()) {
                         if (typeOf(m) != QLatin1String("sessions.grew") ||
                             m.value(QStringLiteral("id")).toString() != id)
                             continue;
                         for (const QJsonValue& item : m.value(QStringLiteral("items")).toArray()) {
                             QJsonObject turn = item.toObject();
                             turn.remove(QStringLiteral("at"));
                             grown.append(compact(turn));
                         }
                     }
                     return grown.size() >= 2;
                 }),
                 qPrintable(m_phone->trace()));
        QCOMPARE(grown, (QStringList{R"({"kind":"user","text":"Back at the desk"})",
                                     R"({"kind":"assistant","text":"Still here."})"}));
        // Once the phone stops watching, what the desk adds is not sent.
        m_phone->send({{QStringLiteral("type"), QStringLiteral("sessions.unwatch")},
                       {QStringLiteral("agentId"), QStringLiteral("cli-agent")},
                       {QStringLiteral("payload"), QJsonObject{{"tool", "claude"}, {"id", id}}}});
        const qsizetype seen = m_phone->messages().size();
        QVERIFY(!atTheDesk(QStringLiteral("claude"),
                           {QStringLiteral("-p"), QStringLiteral("--resume"), id, QStringLiteral("Once more")})
                     .isEmpty());
        // A read answered after it shows that the agent said nothing of it in between.
        QCOMPARE(history(QStringLiteral("claude"), id).size(), 8);
        for (qsizetype at = seen; at < m_phone->messages().size(); ++at)
            QVERIFY(typeOf(m_phone->messages().at(at)) != QLatin1String("sessions.grew"));
    }

    void aCodexThreadOfTheDeskGoesToThePhoneAndBack()
    {
        QVERIFY(startAll());
        QString id;
        for (const QByteArray& line :
             atTheDesk(QStringLiteral("codex"),
                       {QStringLiteral("exec"), QStringLiteral("--json"), QStringLiteral("--skip-git-repo-check"),
                        QStringLiteral("Desk question")})
                 .split('\n')) {
            const QJsonObject event = QJsonDocument::fromJson(line).object();
            if (typeOf(event) == QLatin1String("thread.started"))
                id = event.value(QStringLiteral("thread_id")).toString();
        }
        QVERIFY(!id.isEmpty());

        QCOMPARE(listed(), QStringList{compact(QJsonObject{{"id", id},
                                                           {"live", QJsonValue::Null},
                                                           {"messages", 1},
                                                           {"resumeCommand", resumeCommand("codex", id)},
                                                           {"startedBy", "desk"},
                                                           {"title", "Desk question"},
                                                           {"tool", "codex"}})});
        QCOMPARE(history(QStringLiteral("codex"), id),
                 (QStringList{R"({"kind":"user","text":"Desk question"})",
                              R"({"kind":"assistant","text":"Hello from the fake codex model."})"}));

        const std::optional<QJsonObject> end = chat(QStringLiteral("codex"), id, QStringLiteral("Say it again"));
        QVERIFY2(end && typeOf(*end) == QLatin1String("task.finished"), qPrintable(m_phone->trace()));
        QVERIFY(m_openai->requests().last().body.contains("Desk question"));
        QVERIFY(m_openai->requests().last().body.contains("Hello from the fake codex model."));
        QVERIFY(m_agent->logTexts()
                    .filter(QStringLiteral("shell=codex exec resume --json --skip-git-repo-check '") + id)
                    .size() == 1);
        QVERIFY(listed().value(0).contains(QLatin1String("\"messages\":2,")));

        QVERIFY(!atTheDesk(QStringLiteral("codex"),
                           {QStringLiteral("exec"), QStringLiteral("resume"), QStringLiteral("--json"),
                            QStringLiteral("--skip-git-repo-check"), id, QStringLiteral("Back at the desk")})
                     .isEmpty());
        QVERIFY(m_openai->requests().last().body.contains("Say it again"));
    }

    void aSessionADeskProcessHoldsIsNotWrittenTo()
    {
        QVERIFY(startAll());
        const QString claude =
            QJsonDocument::fromJson(
                atTheDesk(QStringLiteral("claude"), {QStringLiteral("-p"), QStringLiteral("First"),
                                                     QStringLiteral("--output-format"), QStringLiteral("json")}))
                .object()
                .value(QStringLiteral("session_id"))
                .toString();
        QVERIFY(!claude.isEmpty());
        QProcess& busy = startAtTheDesk(QStringLiteral("claude"), {QStringLiteral("-p"), QStringLiteral("--resume"),
                                                                   claude, QStringLiteral("Answer slowly")});
        QVERIFY2(waitUntil([&] { return listed().value(0).contains(QLatin1String("\"live\":\"busy\"")); }, 20000),
                 qPrintable(listed().join(QLatin1Char('\n'))));
        const std::optional<QJsonObject> refused = chat(QStringLiteral("claude"), claude, QStringLiteral("Hello?"));
        QVERIFY(refused);
        QCOMPARE(refused->value(QStringLiteral("error")).toString(),
                 QStringLiteral("this session is open at the desk (busy); continue it there, or fork it"));
        QCOMPARE(refused->value(QStringLiteral("errorCode")).toString(), QStringLiteral("SESSION_OPEN_AT_DESK"));
        QCOMPARE(m_agent->logTexts().filter(QStringLiteral(" session open at the desk state=busy")).size(), 1);
        // A copy of it can go on meanwhile, with its earlier turns.
        const QString copy = QStringLiteral("6fae9462-14c3-4fc0-aabb-83752985c7b1");
        const std::optional<QJsonObject> forked =
            chat(QStringLiteral("claude"), copy, QStringLiteral("Forked question"), claude);
        QVERIFY2(forked && typeOf(*forked) == QLatin1String("task.finished"), qPrintable(m_phone->trace()));
        QCOMPARE(m_agent->logTexts()
                     .filter(QStringLiteral("shell=claude --resume '") + claude +
                             QStringLiteral("' --fork-session --session-id '") + copy + QLatin1Char('\''))
                     .size(),
                 1);
        QVERIFY(m_anthropic->requests().last().body.contains("First"));
        const QStringList turns = history(QStringLiteral("claude"), copy);
        QCOMPARE(turns.first(), QStringLiteral(R"({"kind":"user","text":"First"})"));
        QCOMPARE(turns.at(turns.size() - 2), QStringLiteral(R"({"kind":"user","text":"Forked question"})"));
        QVERIFY(waitUntil([&] { return busy.state() == QProcess::NotRunning; }, kToolTimeoutMs));
        QVERIFY(listed().value(0).contains(QLatin1String("\"live\":null")));

        QString codex;
        for (const QByteArray& line :
             atTheDesk(QStringLiteral("codex"), {QStringLiteral("exec"), QStringLiteral("--json"),
                                                 QStringLiteral("--skip-git-repo-check"), QStringLiteral("First")})
                 .split('\n')) {
            const QJsonObject event = QJsonDocument::fromJson(line).object();
            if (typeOf(event) == QLatin1String("thread.started"))
                codex = event.value(QStringLiteral("thread_id")).toString();
        }
        QVERIFY(!codex.isEmpty());
        QProcess& writing = startAtTheDesk(
            QStringLiteral("codex"), {QStringLiteral("exec"), QStringLiteral("resume"), QStringLiteral("--json"),
                                      QStringLiteral("--skip-git-repo-check"), codex, QStringLiteral("Answer slowly")});
        const auto codexLive = [&] {
            for (const QString& session : listed()) {
                if (session.contains(codex))
                    return session.contains(QLatin1String("\"live\":\"busy\""));
            }
            return false;
        };
        QVERIFY(waitUntil(codexLive, 20000));
        const std::optional<QJsonObject> held = chat(QStringLiteral("codex"), codex, QStringLiteral("Hello?"));
        QVERIFY(held);
        QCOMPARE(held->value(QStringLiteral("errorCode")).toString(), QStringLiteral("SESSION_OPEN_AT_DESK"));
        const std::optional<QJsonObject> copied =
            chat(QStringLiteral("codex"), QStringLiteral("codex-copy"), QStringLiteral("Forked question"), codex);
        QVERIFY2(copied && typeOf(*copied) == QLatin1String("task.finished"), qPrintable(m_phone->trace()));
        QCOMPARE(m_agent->logTexts()
                     .filter(QStringLiteral("shell=codex exec fork --json --skip-git-repo-check '") + codex)
                     .size(),
                 1);
        QVERIFY(m_openai->requests().last().body.contains("First"));
        QVERIFY(waitUntil([&] { return writing.state() == QProcess::NotRunning; }, kToolTimeoutMs));
        QVERIFY(!codexLive());
    }
};

QTEST_GUILESS_MAIN(TstDeskRealTools)
#include "tst_desk_real_tools.moc"
