// A chat's answer survives a client that comes and goes while it streams: the relay keeps
// what each running chat has answered so far, bounded, in the agent's present, and lets
// it go when the task ends.
#include "agent_snapshot.h"
#include "chat_answers.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/relay_fixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <memory>

using namespace brinmoor::relay;
using namespace brinmoor::test;

namespace {

qint64 seqOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("seq")).toInteger();
}

QJsonObject chunk(const QString& taskId, const QString& text)
{
    return QJsonObject{{"type", "task.chat.chunk"}, {"taskId", taskId}, {"conversationId", "conv-1"}, {"chunk", text}};
}

QJsonObject finalText(const QString& taskId, const QString& text)
{
    return QJsonObject{{"type", "task.chat.final"}, {"taskId", taskId}, {"conversationId", "conv-1"}, {"text", text}};
}

// The tasks of the agent's present in a client's hello.
QJsonArray helloTasks(const RelayClient& client)
{
    const QJsonObject agent = client.messages().first().value("agents").toArray().first().toObject();
    return agent.value("snapshot").toObject().value("tasks").toArray();
}

qint64 helloSeq(const RelayClient& client)
{
    return client.messages().first().value("agents").toArray().first().toObject().value("seq").toInteger();
}

QJsonObject runningChat(const QString& taskId, const QString& answer)
{
    return QJsonObject{{"taskId", taskId},           {"kind", "chat"},  {"projectPath", "App"}, {"status", "running"},
                       {"conversationId", "conv-1"}, {"answer", answer}};
}

} // namespace

class TstRelayAnswers : public QObject, private RelayFixture {
    Q_OBJECT

private:
    // A fake agent, registered, and a client that has seen it do so.
    bool connectAgentAndClient(RelayClient& agent, RelayClient& client)
    {
        if (!client.open(m_relay->port, m_relay->token) ||
            !agent.openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token))
            return false;
        agent.send(json("{\"type\":\"agent.register\",\"profiles\":[\"p\"]}"));
        return client.waitForType(QStringLiteral("agent.register")).has_value();
    }

    // A chat the client asks for, started by the agent.
    QString startChat(RelayClient& client, RelayClient& agent)
    {
        client.send(json("{\"type\":\"task.create\",\"agentId\":\"mac-1\",\"payload\":{\"action\":\"chat\","
                         "\"projectPath\":\"App\",\"conversationId\":\"conv-1\",\"prompt\":\"hi\"}}"));
        const auto created = client.waitForType(QStringLiteral("task.created"));
        if (!created || !agent.waitForType(QStringLiteral("task.assign")))
            return {};
        const QString taskId = created->value(QStringLiteral("taskId")).toString();
        agent.send(QJsonObject{{"type", "task.started"}, {"taskId", taskId}});
        return taskId;
    }

    // Sends a message of the agent and waits until the client has it (with every member
    // the agent gave).
    static std::optional<QJsonObject> say(RelayClient& agent, RelayClient& client, const QJsonObject& message)
    {
        agent.send(message);
        return client.waitFor([&](const QJsonObject& heard) {
            for (auto it = message.begin(); it != message.end(); ++it) {
                if (heard.value(it.key()) != it.value())
                    return false;
            }
            return true;
        });
    }

private Q_SLOTS:
    void cleanup() { stopRelay(); }

    void aClientThatComesMidAnswerIsGivenWhatItSaidSoFar()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        const QString taskId = startChat(phone, agent);
        QVERIFY(!taskId.isEmpty());
        QVERIFY(say(agent, phone, chunk(taskId, "Hello, ")));
        const auto last = say(agent, phone, chunk(taskId, QStringLiteral("wörld")));
        QVERIFY(last);

        // A page loaded now: the answer so far, as of the hello's seq, and then what follows.
        RelayClient reloaded;
        QVERIFY(reloaded.open(m_relay->port, m_relay->token));
        QCOMPARE(helloSeq(reloaded), seqOf(*last));
        QCOMPARE(helloTasks(reloaded), QJsonArray{runningChat(taskId, QStringLiteral("Hello, wörld"))});
        const auto next = say(agent, reloaded, chunk(taskId, "!"));
        QVERIFY(next);
        QCOMPARE(seqOf(*next), seqOf(*last) + 1);

        // However far back it resumes: the replay after it is the client's to drop.
        RelayClient resumed;
        QVERIFY(resumed.openResuming(m_relay->port, m_relay->token, QJsonObject{{"mac-1", 1}}));
        QCOMPARE(helloTasks(resumed), QJsonArray{runningChat(taskId, QStringLiteral("Hello, wörld!"))});

        // The final text is the answer when what streamed does not end with it.
        QVERIFY(say(agent, phone, finalText(taskId, " Hello, wörld! \n")));
        RelayClient afterFinal;
        QVERIFY(afterFinal.open(m_relay->port, m_relay->token));
        QCOMPARE(helloTasks(afterFinal), QJsonArray{runningChat(taskId, QStringLiteral("Hello, wörld!"))});
        QVERIFY(say(agent, phone, finalText(taskId, "Goodbye.")));
        RelayClient replaced;
        QVERIFY(replaced.open(m_relay->port, m_relay->token));
        QCOMPARE(helloTasks(replaced), QJsonArray{runningChat(taskId, QStringLiteral("Goodbye."))});

        // Gone with the task's end.
        QVERIFY(say(agent, phone, QJsonObject{{"type", "task.cancelled"}, {"taskId", taskId}, {"exitCode", 130}}));
        RelayClient later;
        QVERIFY(later.open(m_relay->port, m_relay->token));
        QCOMPARE(helloTasks(later), (QJsonArray{QJsonObject{{"taskId", taskId},
                                                            {"kind", "chat"},
                                                            {"projectPath", "App"},
                                                            {"status", "cancelled"},
                                                            {"exitCode", 130},
                                                            {"conversationId", "conv-1"}}}));
    }

    void aClientAfterAGapIsGivenTheWholeAnswerInThePresent()
    {
        QVERIFY(startRelay({QStringLiteral("BRINMOOR_EVENT_LOG_BYTES=8192")}));
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        const QString taskId = startChat(phone, agent);
        const auto first = say(agent, phone, chunk(taskId, "The beginning, "));
        QVERIFY(first);
        // Far more than the log holds, the answer's beginning among what it let go.
        QString answer = QStringLiteral("The beginning, ");
        for (int i = 0; i < 200; ++i) {
            const QString piece = QStringLiteral("piece %1 %2 ").arg(i).arg(QString(100, QLatin1Char('p')));
            agent.send(chunk(taskId, piece));
            answer += piece;
        }
        QVERIFY(
            phone.waitFor([](const QJsonObject& m) { return m.value("chunk").toString().startsWith("piece 199 "); }));
        const qint64 head = seqOf(phone.messages().last());

        RelayClient back;
        QVERIFY(back.openResuming(m_relay->port, m_relay->token, QJsonObject{{"mac-1", seqOf(*first)}}));
        const auto gap = back.waitForType(QStringLiteral("resume.gap"));
        QVERIFY(gap);
        QCOMPARE(gap->value("seq").toInteger(), head);
        QCOMPARE(gap->value("snapshot").toObject().value("tasks").toArray(), QJsonArray{runningChat(taskId, answer)});
        const auto after = say(agent, back, chunk(taskId, "the end."));
        QVERIFY(after);
        QCOMPARE(seqOf(*after), head + 1);
    }

    void anAnswerIsKeptUpToOneMebibyteOfItsEnd()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        const QString taskId = startChat(phone, agent);
        // 100000 bytes of two-byte characters, 1000000 of one-byte ones and one more byte:
        // the bound falls inside a character, which goes whole.
        agent.send(chunk(taskId, QString(50'000, QChar(0xE9))));
        for (int i = 0; i < 10; ++i)
            agent.send(chunk(taskId, QString(100'000, QLatin1Char('x'))));
        QVERIFY(say(agent, phone, chunk(taskId, "y")));
        RelayClient reloaded;
        QVERIFY(reloaded.open(m_relay->port, m_relay->token));
        const QString kept = QString(24'287, QChar(0xE9)) + QString(1'000'000, QLatin1Char('x')) + QLatin1Char('y');
        QCOMPARE(kept.toUtf8().size(), ChatAnswers::kMaxBytes - 1);
        QJsonObject cut = runningChat(taskId, kept);
        cut.insert("answerCut", true);
        const QJsonArray tasks = helloTasks(reloaded);
        QCOMPARE(tasks.size(), 1);
        QCOMPARE(tasks.first().toObject().value("answer").toString().size(), kept.size());
        QCOMPARE(tasks.first().toObject(), cut);
    }

    // The present without a relay process: what the answer is made of.
    void anAnswerHeardFromTheMiddleOnSaysItIsCut()
    {
        AgentSnapshot snapshot;
        // The relay started while the chat ran: the agent restates it.
        snapshot.observe(json("{\"type\":\"task.chat.chunk\",\"taskId\":\"t1\",\"chunk\":\"lost\"}"));
        snapshot.observe(json("{\"type\":\"agent.state\",\"tasks\":[{\"taskId\":\"t1\",\"kind\":\"chat\","
                              "\"projectPath\":\"App\",\"status\":\"running\",\"conversationId\":\"c\"}]}"));
        snapshot.observe(json("{\"type\":\"task.chat.chunk\",\"taskId\":\"t1\",\"chunk\":\"the rest\"}"));
        QCOMPARE(snapshot.toJson().value("tasks"),
                 QJsonDocument::fromJson("[{\"taskId\":\"t1\",\"kind\":\"chat\",\"projectPath\":\"App\",\"status\":"
                                         "\"running\",\"conversationId\":\"c\",\"answer\":\"the rest\","
                                         "\"answerCut\":true}]")
                     .array());
        // Restated while nothing has been said since: nothing known.
        snapshot.observe(json("{\"type\":\"agent.state\",\"tasks\":[{\"taskId\":\"t2\",\"kind\":\"chat\","
                              "\"projectPath\":\"App\",\"status\":\"running\"}]}"));
        QCOMPARE(snapshot.toJson().value("tasks").toArray().last(),
                 QJsonValue(json("{\"taskId\":\"t2\",\"kind\":\"chat\",\"projectPath\":\"App\",\"status\":"
                                 "\"running\",\"answer\":\"\",\"answerCut\":true}")));
        // The task it no longer runs is lost, its answer gone.
        QCOMPARE(snapshot.toJson().value("tasks").toArray().first(),
                 QJsonValue(json("{\"taskId\":\"t1\",\"kind\":\"chat\",\"projectPath\":\"App\",\"status\":\"lost\","
                                 "\"conversationId\":\"c\"}")));

        // Heard from its start (a task the relay saw start, a chat restated later) it is whole.
        snapshot.observe(json("{\"type\":\"task.started\",\"taskId\":\"t3\"}"));
        snapshot.observe(json("{\"type\":\"task.chat.chunk\",\"taskId\":\"t3\",\"chunk\":\"All of it\"}"));
        snapshot.observe(json("{\"type\":\"agent.state\",\"tasks\":[{\"taskId\":\"t3\",\"kind\":\"chat\","
                              "\"projectPath\":\"App\",\"status\":\"running\"}]}"));
        QCOMPARE(snapshot.toJson().value("tasks").toArray().last(),
                 QJsonValue(json("{\"taskId\":\"t3\",\"kind\":\"chat\",\"projectPath\":\"App\",\"status\":"
                                 "\"running\",\"answer\":\"All of it\"}")));
        // Only running chats have one; chunks of a task that ended change nothing.
        snapshot.observe(json("{\"type\":\"task.finished\",\"taskId\":\"t3\",\"exitCode\":0}"));
        snapshot.observe(json("{\"type\":\"task.chat.chunk\",\"taskId\":\"t3\",\"chunk\":\"late\"}"));
        snapshot.taskCreated("t4", json("{\"action\":\"shell\",\"projectPath\":\"App\"}"));
        snapshot.observe(json("{\"type\":\"task.started\",\"taskId\":\"t4\"}"));
        const QJsonArray tasks = snapshot.toJson().value("tasks").toArray();
        for (const QJsonValue& task : tasks)
            QVERIFY2(!task.toObject().contains("answer"), qPrintable(task.toObject().value("taskId").toString()));
    }
};

QTEST_GUILESS_MAIN(TstRelayAnswers)
#include "tst_relay_answers.moc"
