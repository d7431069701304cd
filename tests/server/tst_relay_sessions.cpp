// The coding assistants' sessions on the desk computer, through the relay: a client's
// "sessions.list" and "sessions.read" go to the agent with the relay's own "readId", and
// the agent's "sessions.listed" and "sessions.history" to the client that asked alone,
// neither relayed to the others nor kept for a client that comes later.
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/relay_fixture.h"

#include <QJsonArray>
#include <QTest>

#include <algorithm>

using namespace brinmoor::test;

namespace {

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

qsizetype countOf(const RelayClient& peer, const QString& type)
{
    return std::count_if(peer.messages().cbegin(), peer.messages().cend(),
                         [&](const QJsonObject& m) { return typeOf(m) == type; });
}

// What the agent was told but the relay's confirmations of what it received.
QList<QJsonObject> commandsTo(const RelayClient& agent)
{
    QList<QJsonObject> commands = agent.messages();
    commands.removeIf([](const QJsonObject& m) {
        return typeOf(m) == QLatin1String("agent.ack") || typeOf(m) == QLatin1String("agent.hello");
    });
    return commands;
}

} // namespace

class TstRelaySessions : public QObject, private RelayFixture {
    Q_OBJECT

private:
    // A fake agent, registered, and a client that has seen it do so.
    bool connectAgentAndClient(RelayClient& agent, RelayClient& client)
    {
        if (!client.open(m_relay->port, m_relay->token) ||
            !agent.openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token))
            return false;
        agent.send(json(R"({"type":"agent.register","profiles":["p"],"projects":["/p"]})"));
        return client.waitForType(QStringLiteral("agent.register")).has_value();
    }

    // The agent's read of this id, once it has come.
    static std::optional<QJsonObject> readOf(RelayClient& agent, const QString& readId)
    {
        return agent.waitFor([&](const QJsonObject& m) {
            return m.value(QStringLiteral("payload")).toObject().value(QStringLiteral("readId")) == readId;
        });
    }

    // Something every client hears; once a client has it, it has heard all the agent said
    // before.
    static bool heardMarker(RelayClient& agent, RelayClient& client, int n)
    {
        agent.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("projects.listed")},
                               {QStringLiteral("projects"), QJsonArray{n}}});
        return client
            .waitFor([&](const QJsonObject& m) {
                return typeOf(m) == QLatin1String("projects.listed") &&
                       m.value(QStringLiteral("projects")) == QJsonArray{n};
            })
            .has_value();
    }

private Q_SLOTS:
    void cleanup() { stopRelay(); }

    void theRelayOffersSessionsLast()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        QVERIFY(agent.openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token));
        const QJsonObject hello = agent.messages().first();
        QCOMPARE(typeOf(hello), QStringLiteral("agent.hello"));
        QCOMPARE(hello.value(QStringLiteral("payload")).toObject().value(QStringLiteral("features")),
                 json(R"({"f":["seq","ack","grace","state","pacing","end","projects","files","lines","sessions"]})")
                     .value(QStringLiteral("f")));
    }

    void aListGoesToTheAgentAndItsAnswerToTheClientAlone()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));

        client.send(json(
            R"({"type":"sessions.list","agentId":"mac-1","requestId":"q1","payload":{"projectPath":"/p/App","x":1}})"));
        const auto list = readOf(agent, QStringLiteral("r1"));
        QVERIFY(list);
        QCOMPARE(*list, json(R"({"type":"sessions.list","payload":{"projectPath":"/p/App","readId":"r1"}})"));
        agent.send(json(
            R"({"type":"sessions.listed","readId":"r1","projectPath":"/p/App","sessions":[{"tool":"claude","id":"s1"}]})"));
        const auto listed = client.waitForType(QStringLiteral("sessions.listed"));
        QVERIFY(listed);
        QCOMPARE(
            *listed,
            json(
                R"({"type":"sessions.listed","agentId":"mac-1","requestId":"q1","projectPath":"/p/App","sessions":[{"tool":"claude","id":"s1"}]})"));

        // An empty project path is a path too; a read without a request id is answered
        // without one.
        client.send(json(R"({"type":"sessions.list","agentId":"mac-1","payload":{"projectPath":""}})"));
        QCOMPARE(*readOf(agent, QStringLiteral("r2")),
                 json(R"({"type":"sessions.list","payload":{"projectPath":"","readId":"r2"}})"));
        agent.send(json(R"({"type":"sessions.listed","readId":"r2","sessions":[]})"));
        QVERIFY(client.waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("sessions.listed") && !m.contains(QStringLiteral("requestId"));
        }));
        QCOMPARE(client.messages().last(), json(R"({"type":"sessions.listed","agentId":"mac-1","sessions":[]})"));

        // The same answer again, or one nobody asked for, goes nowhere.
        agent.send(json(R"({"type":"sessions.listed","readId":"r1","sessions":[]})"));
        agent.send(json(R"({"type":"sessions.listed","readId":"r99","sessions":[]})"));
        agent.send(json(R"({"type":"sessions.listed","sessions":[]})"));
        QVERIFY(heardMarker(agent, client, 1));
        QVERIFY(heardMarker(agent, other, 1));
        QCOMPARE(countOf(client, QStringLiteral("sessions.listed")), 2);
        QCOMPARE(countOf(other, QStringLiteral("sessions.listed")), 0);

        // Nor is an answer kept for a client that comes later and asks for everything.
        RelayClient later;
        QVERIFY(later.openResuming(m_relay->port, m_relay->token, QJsonObject{{QStringLiteral("mac-1"), 0}}));
        QVERIFY(heardMarker(agent, later, 2));
        QCOMPARE(countOf(later, QStringLiteral("sessions.listed")), 0);
        QVERIFY(later.trace().contains(QStringLiteral("agent.register")));
    }

    void aHistoryGoesToTheAgentAndItsAnswerToTheClientAlone()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));

        client.send(json(
            R"({"type":"sessions.read","agentId":"mac-1","requestId":"h1","payload":{"tool":"codex","id":"0199-a","before":40}})"));
        QCOMPARE(
            *readOf(agent, QStringLiteral("r1")),
            json(R"({"type":"sessions.read","payload":{"tool":"codex","id":"0199-a","before":40,"readId":"r1"}})"));
        // The relay does not judge the tool: the agent answers for one it does not know.
        client.send(json(
            R"({"type":"sessions.read","agentId":"mac-1","requestId":"h2","payload":{"tool":"vim","id":"s","before":0}})"));
        QCOMPARE(*readOf(agent, QStringLiteral("r2")),
                 json(R"({"type":"sessions.read","payload":{"tool":"vim","id":"s","before":0,"readId":"r2"}})"));
        client.send(json(R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":"s2"}})"));
        QCOMPARE(*readOf(agent, QStringLiteral("r3")),
                 json(R"({"type":"sessions.read","payload":{"tool":"claude","id":"s2","readId":"r3"}})"));

        // Answered out of order, each goes to its own request.
        agent.send(json(R"({"type":"sessions.history","readId":"r2","error":"unknown tool: vim"})"));
        agent.send(json(
            R"({"type":"sessions.history","readId":"r1","tool":"codex","id":"0199-a","entries":[{"role":"user","text":"hi"}],"more":true})"));
        agent.send(json(R"({"type":"sessions.history","readId":"r3","tool":"claude","id":"s2","entries":[]})"));
        QVERIFY(client.waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("sessions.history") && m.value(QStringLiteral("id")) == "s2";
        }));
        QList<QJsonObject> histories = client.messages();
        histories.removeIf([](const QJsonObject& m) { return typeOf(m) != QLatin1String("sessions.history"); });
        QCOMPARE(
            histories,
            (QList<QJsonObject>{
                json(R"({"type":"sessions.history","agentId":"mac-1","requestId":"h2","error":"unknown tool: vim"})"),
                json(
                    R"({"type":"sessions.history","agentId":"mac-1","requestId":"h1","tool":"codex","id":"0199-a","entries":[{"role":"user","text":"hi"}],"more":true})"),
                json(R"({"type":"sessions.history","agentId":"mac-1","tool":"claude","id":"s2","entries":[]})"),
            }));
        QVERIFY(heardMarker(agent, other, 1));
        QCOMPARE(countOf(other, QStringLiteral("sessions.history")), 0);
        QCOMPARE(countOf(other, QStringLiteral("sessions.read")), 0);
    }

    void answersBadShapesWithAnError_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QJsonObject>("answer");
        const auto error = [](const char* code, const char* text) {
            return QJsonObject{{QStringLiteral("type"), QStringLiteral("error")},
                               {QStringLiteral("code"), QString::fromUtf8(code)},
                               {QStringLiteral("message"), QString::fromUtf8(text)}};
        };
        const auto row = [&](const char* name, const char* message, const char* text) {
            QTest::newRow(name) << QString::fromUtf8(message) << error("BAD_REQUEST", text);
        };
        row("list without agent", R"({"type":"sessions.list","payload":{"projectPath":"/p"}})",
            "sessions.list needs a string \"agentId\"");
        row("list without payload", R"({"type":"sessions.list","agentId":"mac-1"})",
            "sessions.list needs an object \"payload\"");
        row("list payload not an object", R"({"type":"sessions.list","agentId":"mac-1","payload":"/p"})",
            "sessions.list needs an object \"payload\"");
        row("list without path", R"({"type":"sessions.list","agentId":"mac-1","payload":{}})",
            "sessions.list needs a string \"projectPath\"");
        row("list path not a string", R"({"type":"sessions.list","agentId":"mac-1","payload":{"projectPath":7}})",
            "sessions.list needs a string \"projectPath\"");
        row("list path null", R"({"type":"sessions.list","agentId":"mac-1","payload":{"projectPath":null}})",
            "sessions.list needs a string \"projectPath\"");
        row("read without payload", R"({"type":"sessions.read","agentId":"mac-1"})",
            "sessions.read needs an object \"payload\"");
        row("read without tool", R"({"type":"sessions.read","agentId":"mac-1","payload":{"id":"s"}})",
            "sessions.read needs a string \"tool\"");
        row("read empty tool", R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"","id":"s"}})",
            "sessions.read needs a string \"tool\"");
        row("read without id", R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude"}})",
            "sessions.read needs a string \"id\"");
        row("read empty id", R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":""}})",
            "sessions.read needs a string \"id\"");
        row("read id not a string", R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":3}})",
            "sessions.read needs a string \"id\"");
        row("read before negative",
            R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":"s","before":-1}})",
            "sessions.read needs \"before\" as a whole number");
        row("read before a fraction",
            R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":"s","before":1.5}})",
            "sessions.read needs \"before\" as a whole number");
        row("read before a string",
            R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":"s","before":"3"}})",
            "sessions.read needs \"before\" as a whole number");
        row("read before null",
            R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":"s","before":null}})",
            "sessions.read needs \"before\" as a whole number");
        // The first member wrong is the one the client hears of, with its request id.
        const auto withRequest = [](QJsonObject answer) {
            answer.insert(QStringLiteral("requestId"), QStringLiteral("q"));
            return answer;
        };
        QTest::newRow("read with request id")
            << QStringLiteral(R"({"type":"sessions.read","agentId":"mac-1","requestId":"q","payload":{"id":""}})")
            << withRequest(error("BAD_REQUEST", "sessions.read needs a string \"tool\""));
        QTest::newRow("list offline")
            << QStringLiteral(
                   R"({"type":"sessions.list","agentId":"gone","requestId":"q","payload":{"projectPath":""}})")
            << withRequest(error("AGENT_OFFLINE", "agent is not connected: gone"));
        QTest::newRow("read offline")
            << QStringLiteral(R"({"type":"sessions.read","agentId":"gone","payload":{"tool":"claude","id":"s"}})")
            << error("AGENT_OFFLINE", "agent is not connected: gone");
    }

    // A bad read is answered with an error and nothing goes to the agent.
    void answersBadShapesWithAnError()
    {
        QFETCH(QString, message);
        QFETCH(QJsonObject, answer);
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        client.sendText(message);
        const auto error = client.waitForType(QStringLiteral("error"));
        QVERIFY(error);
        QCOMPARE(*error, answer);
        QVERIFY(client.isConnected());
        client.send(json(R"({"type":"sessions.list","agentId":"mac-1","payload":{"projectPath":"/p"}})"));
        QVERIFY(readOf(agent, QStringLiteral("r1")));
        QCOMPARE(commandsTo(agent),
                 QList<QJsonObject>{json(R"({"type":"sessions.list","payload":{"projectPath":"/p","readId":"r1"}})")});
    }

    // Sessions' reads count with the tasks' ones: a client waits for at most 16 at once,
    // and may ask again once one is answered.
    void aClientWaitsForAtMostSixteenReads()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        for (int i = 0; i < 8; ++i) {
            client.send(json(R"({"type":"sessions.list","agentId":"mac-1","payload":{"projectPath":"/p"}})"));
            client.send(json(R"({"type":"sessions.read","agentId":"mac-1","payload":{"tool":"claude","id":"s"}})"));
        }
        QVERIFY(readOf(agent, QStringLiteral("r16")));
        client.send(json(
            R"({"type":"sessions.read","agentId":"mac-1","requestId":"17","payload":{"tool":"claude","id":"s"}})"));
        client.send(json(R"({"type":"tasks.list","agentId":"mac-1","requestId":"18"})"));
        client.send(
            json(R"({"type":"sessions.list","agentId":"mac-1","requestId":"19","payload":{"projectPath":"/p"}})"));
        QVERIFY(client.waitFor([](const QJsonObject& m) { return m.value(QStringLiteral("requestId")) == "19"; }));
        QList<QJsonObject> errors = client.messages();
        errors.removeIf([](const QJsonObject& m) { return typeOf(m) != QLatin1String("error"); });
        const auto refused = [](const char* requestId) {
            return QJsonObject{
                {QStringLiteral("type"), QStringLiteral("error")},
                {QStringLiteral("code"), QStringLiteral("TOO_MANY_READS")},
                {QStringLiteral("message"), QStringLiteral("a client waits for at most 16 reads at once")},
                {QStringLiteral("requestId"), QString::fromUtf8(requestId)}};
        };
        QCOMPARE(errors, (QList<QJsonObject>{refused("17"), refused("18"), refused("19")}));

        // Another client has reads of its own.
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));
        other.send(
            json(R"({"type":"sessions.list","agentId":"mac-1","requestId":"o","payload":{"projectPath":"/q"}})"));
        QCOMPARE(*readOf(agent, QStringLiteral("r17")),
                 json(R"({"type":"sessions.list","payload":{"projectPath":"/q","readId":"r17"}})"));

        // One answered, the client may ask one more.
        agent.send(json(R"({"type":"sessions.history","readId":"r2","entries":[]})"));
        QVERIFY(client.waitForType(QStringLiteral("sessions.history")));
        client.send(
            json(R"({"type":"sessions.list","agentId":"mac-1","requestId":"20","payload":{"projectPath":"/p"}})"));
        QCOMPARE(*readOf(agent, QStringLiteral("r18")),
                 json(R"({"type":"sessions.list","payload":{"projectPath":"/p","readId":"r18"}})"));
        QCOMPARE(countOf(agent, QStringLiteral("sessions.list")) + countOf(agent, QStringLiteral("sessions.read")), 18);
        QCOMPARE(countOf(agent, QStringLiteral("tasks.list")), 0);
    }

    void anAnswerForAClientThatLeftIsDropped()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));
        client.send(
            json(R"({"type":"sessions.list","agentId":"mac-1","requestId":"q","payload":{"projectPath":"/p"}})"));
        client.send(
            json(R"({"type":"sessions.read","agentId":"mac-1","requestId":"h","payload":{"tool":"claude","id":"s"}})"));
        QVERIFY(readOf(agent, QStringLiteral("r2")));
        client.close();
        QVERIFY(m_relay->waitForLine(QStringLiteral("client.disconnected address=127.0.0.1")));
        agent.send(json(R"({"type":"sessions.listed","readId":"r1","sessions":[]})"));
        agent.send(json(R"({"type":"sessions.history","readId":"r2","entries":[]})"));
        QVERIFY(heardMarker(agent, other, 1));
        QCOMPARE(countOf(other, QStringLiteral("sessions.listed")), 0);
        QCOMPARE(countOf(other, QStringLiteral("sessions.history")), 0);
        QVERIFY(other.isConnected());
    }

    // A read waits while its agent is away: the answer the agent sends on its next
    // connection still reaches the client that asked.
    void aReadOutlivesItsAgentsConnection()
    {
        QVERIFY(startRelay());
        RelayClient client;
        {
            RelayClient agent;
            QVERIFY(connectAgentAndClient(agent, client));
            client.send(json(
                R"({"type":"sessions.read","agentId":"mac-1","requestId":"h","payload":{"tool":"claude","id":"s"}})"));
            QVERIFY(readOf(agent, QStringLiteral("r1")));
            agent.close();
            QVERIFY(client.waitForType(QStringLiteral("agent.offline")));
        }
        QCOMPARE(countOf(client, QStringLiteral("error")), 0);
        RelayClient again;
        QVERIFY(again.openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token));
        again.send(json(R"({"type":"sessions.history","readId":"r1","tool":"claude","id":"s","entries":[]})"));
        const auto history = client.waitForType(QStringLiteral("sessions.history"));
        QVERIFY(history);
        QCOMPARE(
            *history,
            json(
                R"({"type":"sessions.history","agentId":"mac-1","requestId":"h","tool":"claude","id":"s","entries":[]})"));
    }
};

QTEST_GUILESS_MAIN(TstRelaySessions)
#include "tst_relay_sessions.moc"
