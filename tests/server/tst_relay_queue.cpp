// A task created while the agent runs another waits at the relay and goes to the agent
// once it is free, in the order they came; every client sees the queue.
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/relay_fixture.h"
#include "support/test_support.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <memory>

using namespace brinmoor::test;

namespace {

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

const QJsonObject kIdle = QJsonObject{{QStringLiteral("type"), QStringLiteral("agent.state")},
                                      {QStringLiteral("tasks"), QJsonArray()},
                                      {QStringLiteral("terminals"), QJsonArray()}};

QJsonObject shell(const QString& command)
{
    return QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")}, {QStringLiteral("command"), command}};
}

QJsonObject queued(const QString& taskId, int place, const QJsonObject& payload, const QStringList& waiting)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("task.queued")},
                       {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                       {QStringLiteral("taskId"), taskId},
                       {QStringLiteral("place"), place},
                       {QStringLiteral("payload"), payload},
                       {QStringLiteral("waiting"), QJsonArray::fromStringList(waiting)}};
}

QJsonObject unqueued(const QString& taskId, const QString& reason, const QStringList& waiting)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("task.unqueued")},
                       {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                       {QStringLiteral("taskId"), taskId},
                       {QStringLiteral("reason"), reason},
                       {QStringLiteral("waiting"), QJsonArray::fromStringList(waiting)}};
}

QJsonObject assign(const QString& taskId, const QJsonObject& payload)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("task.assign")},
                       {QStringLiteral("taskId"), taskId},
                       {QStringLiteral("payload"), payload}};
}

QJsonObject agentMessage(const char* type, const QString& taskId)
{
    return QJsonObject{{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("taskId"), taskId}};
}

QJsonObject finished(const QString& taskId)
{
    QJsonObject message = agentMessage("task.finished", taskId);
    message.insert(QStringLiteral("exitCode"), 0);
    return message;
}

// What the agent answers a task while it runs another.
QJsonObject busy(const QString& taskId)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("task.failed")},
                       {QStringLiteral("taskId"), taskId},
                       {QStringLiteral("error"), QStringLiteral("agent is busy")},
                       {QStringLiteral("errorCode"), QStringLiteral("AGENT_BUSY")},
                       {QStringLiteral("exitCode"), 1}};
}

// The queue's and the tasks' messages a peer got, in order: "type taskId", with the
// reason of a "task.unqueued".
QStringList taskTrace(const RelayClient& peer)
{
    QStringList trace;
    for (const QJsonObject& message : peer.messages()) {
        const QString type = typeOf(message);
        if (!type.startsWith(QLatin1String("task.")) || type == QLatin1String("task.created"))
            continue;
        QString line = type + QLatin1Char(' ') + message.value(QStringLiteral("taskId")).toString();
        if (message.contains(QStringLiteral("reason")))
            line += QLatin1Char(' ') + message.value(QStringLiteral("reason")).toString();
        trace.append(line);
    }
    return trace;
}

QJsonObject snapshotOf(const QJsonObject& hello)
{
    return hello.value(QStringLiteral("agents"))
        .toArray()
        .first()
        .toObject()
        .value(QStringLiteral("snapshot"))
        .toObject();
}

} // namespace

class TstRelayQueue : public QObject, private RelayFixture {
    Q_OBJECT

private:
    bool connectAgentAndClient(RelayClient& agent, RelayClient& client)
    {
        if (!client.open(m_relay->port, m_relay->token) ||
            !agent.openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token))
            return false;
        agent.send(json("{\"type\":\"agent.register\",\"profiles\":[\"p\"]}"));
        // As the agent does on every connection: it says what it runs.
        agent.send(kIdle);
        return client.waitForType(QStringLiteral("agent.state")).has_value();
    }

    // Creates a task and gives the relay's answer ("task.created" or "error").
    QJsonObject create(RelayClient& client, const QJsonObject& payload, const QString& requestId)
    {
        client.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.create")},
                                {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                                {QStringLiteral("requestId"), requestId},
                                {QStringLiteral("payload"), payload}});
        const auto answer = client.waitFor(
            [&](const QJsonObject& m) { return m.value(QStringLiteral("requestId")).toString() == requestId; });
        return answer.value_or(QJsonObject());
    }

    QString createdId(RelayClient& client, const QJsonObject& payload, const QString& requestId)
    {
        return create(client, payload, requestId).value(QStringLiteral("taskId")).toString();
    }

    static std::optional<QJsonObject> waitFor(RelayClient& peer, const QJsonObject& expected)
    {
        return peer.waitFor([&](const QJsonObject& m) { return m == expected; });
    }

    // The task.assign messages an agent got, in order.
    static QList<QJsonObject> assigns(const RelayClient& agent)
    {
        QList<QJsonObject> all;
        for (const QJsonObject& message : agent.messages()) {
            if (typeOf(message) == QLatin1String("task.assign"))
                all.append(message);
        }
        return all;
    }

    QStringList queueLines()
    {
        QStringList lines;
        for (const QString& line : m_relay->lines()) {
            if (line.startsWith(QLatin1String("task.")))
                lines.append(line);
        }
        return lines;
    }

    bool agentsBusy()
    {
        return httpExchange(m_relay->port,
                            "GET /v1/agents HTTP/1.1\r\nAuthorization: Bearer " + m_relay->token.toUtf8() + "\r\n\r\n")
            .contains("\"busy\":true");
    }

private Q_SLOTS:
    void cleanup() { stopRelay(); }

    void refusesAnOfflineWaitThatIsNoNumberOfSeconds_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("none") << QStringLiteral("0");
        QTest::newRow("beyond a day") << QStringLiteral("86401");
        QTest::newRow("a word") << QStringLiteral("long");
    }

    void refusesAnOfflineWaitThatIsNoNumberOfSeconds()
    {
        QFETCH(QString, value);
        const RelayRefusal refusal =
            runRefusedRelay(environment({QStringLiteral("BRINMOOR_SHARED_TOKEN=relay-token-7f3a9c1e5b2d4086"),
                                         QStringLiteral("BRINMOOR_QUEUE_OFFLINE_SEC=") + value}));
        QCOMPARE(refusal.exitCode, 2);
        QCOMPARE(refusal.error,
                 QStringLiteral("brinmoor-server: BRINMOOR_QUEUE_OFFLINE_SEC is not a number of seconds: ") + value +
                     QLatin1Char('\n'));
    }

    void tasksForABusyAgentWaitAndGoInTheOrderTheyCame()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        RelayClient other;
        QVERIFY(other.open(m_relay->port, m_relay->token));

        const QString first = createdId(phone, shell(QStringLiteral("sleep 30")), QStringLiteral("r1"));
        QVERIFY(waitFor(agent, assign(first, shell(QStringLiteral("sleep 30")))));
        agent.send(agentMessage("task.started", first));
        QVERIFY(other.waitForType(QStringLiteral("task.started")));
        const QJsonObject chat =
            json("{\"action\":\"chat\",\"system\":\"claude\",\"prompt\":\"Hi\",\"conversationId\":\"c1\"}");
        const QJsonObject created = create(phone, shell(QStringLiteral("echo second")), QStringLiteral("r2"));
        const QString second = created.value(QStringLiteral("taskId")).toString();
        QCOMPARE(created, (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.created")},
                                       {QStringLiteral("taskId"), second},
                                       {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                                       {QStringLiteral("requestId"), QStringLiteral("r2")}}));
        const QString third = createdId(phone, chat, QStringLiteral("r3"));
        for (RelayClient* client : {&phone, &other}) {
            QVERIFY(waitFor(*client, queued(second, 1, shell(QStringLiteral("echo second")), {second})));
            QVERIFY(waitFor(*client, queued(third, 2, chat, {second, third})));
        }
        QVERIFY(agentsBusy());

        agent.send(finished(first));
        QVERIFY(waitFor(agent, assign(second, shell(QStringLiteral("echo second")))));
        QVERIFY(waitFor(other, unqueued(second, QStringLiteral("assigned"), {third})));
        // The second is not refused: it is the agent's task now.
        agent.send(agentMessage("task.started", second));
        agent.send(finished(second));
        QVERIFY(waitFor(agent, assign(third, chat)));
        QVERIFY(waitFor(other, unqueued(third, QStringLiteral("assigned"), {})));
        agent.send(finished(third));
        QVERIFY(other.waitFor([&](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("task.finished") && m.value(QStringLiteral("taskId")) == third;
        }));
        QVERIFY(waitUntil([&] { return !agentsBusy(); }));

        QCOMPARE(assigns(agent),
                 (QList<QJsonObject>{assign(first, shell(QStringLiteral("sleep 30"))),
                                     assign(second, shell(QStringLiteral("echo second"))), assign(third, chat)}));
        // Each waiting task leaves the queue after the end of the one before it.
        QCOMPARE(taskTrace(other), (QStringList{
                                       QStringLiteral("task.started ") + first,
                                       QStringLiteral("task.queued ") + second,
                                       QStringLiteral("task.queued ") + third,
                                       QStringLiteral("task.finished ") + first,
                                       QStringLiteral("task.unqueued ") + second + QStringLiteral(" assigned"),
                                       QStringLiteral("task.started ") + second,
                                       QStringLiteral("task.finished ") + second,
                                       QStringLiteral("task.unqueued ") + third + QStringLiteral(" assigned"),
                                       QStringLiteral("task.finished ") + third,
                                   }));
        QCOMPARE(queueLines(), (QStringList{
                                   QStringLiteral("task.create taskId=%1 agentId=mac-1").arg(first),
                                   QStringLiteral("task.create taskId=%1 agentId=mac-1").arg(second),
                                   QStringLiteral("task.queued taskId=%1 agentId=mac-1 place=1").arg(second),
                                   QStringLiteral("task.create taskId=%1 agentId=mac-1").arg(third),
                                   QStringLiteral("task.queued taskId=%1 agentId=mac-1 place=2").arg(third),
                                   QStringLiteral("task.unqueued taskId=%1 agentId=mac-1 reason=assigned").arg(second),
                                   QStringLiteral("task.unqueued taskId=%1 agentId=mac-1 reason=assigned").arg(third),
                               }));
    }

    void aWaitingTaskCancelledEndsAtTheRelay()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        const QString first = createdId(phone, shell(QStringLiteral("sleep 30")), QStringLiteral("r1"));
        QVERIFY(agent.waitForType(QStringLiteral("task.assign")));
        const QString second = createdId(phone, shell(QStringLiteral("echo 2")), QStringLiteral("r2"));
        const QString third = createdId(phone, shell(QStringLiteral("echo 3")), QStringLiteral("r3"));
        QVERIFY(waitFor(phone, queued(third, 2, shell(QStringLiteral("echo 3")), {second, third})));

        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancel")},
                               {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                               {QStringLiteral("taskId"), second}});
        QVERIFY(waitFor(phone, unqueued(second, QStringLiteral("cancelled"), {third})));
        // A page that comes now sees it ended as cancelled, and the one still waiting.
        RelayClient late;
        QVERIFY(late.open(m_relay->port, m_relay->token));
        QCOMPARE(snapshotOf(late.messages().first()),
                 (QJsonObject{{QStringLiteral("tasks"),
                               QJsonArray{QJsonObject{{QStringLiteral("taskId"), first},
                                                      {QStringLiteral("kind"), QStringLiteral("shell")},
                                                      {QStringLiteral("projectPath"), QString()},
                                                      {QStringLiteral("status"), QStringLiteral("running")}},
                                          QJsonObject{{QStringLiteral("taskId"), second},
                                                      {QStringLiteral("kind"), QStringLiteral("shell")},
                                                      {QStringLiteral("projectPath"), QString()},
                                                      {QStringLiteral("status"), QStringLiteral("cancelled")}}}},
                              {QStringLiteral("proposal"), QJsonValue()},
                              {QStringLiteral("terminals"), QJsonArray()},
                              {QStringLiteral("queue"), QJsonArray{QJsonObject{{QStringLiteral("taskId"), third},
                                                                               {QStringLiteral("payload"),
                                                                                shell(QStringLiteral("echo 3"))}}}}}));
        // Cancelling the running one still goes to the agent; then the third goes, not the second.
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancel")},
                               {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                               {QStringLiteral("taskId"), first}});
        QVERIFY(waitFor(agent, agentMessage("task.cancel", first)));
        QJsonObject cancelled = agentMessage("task.cancelled", first);
        cancelled.insert(QStringLiteral("exitCode"), 130);
        agent.send(cancelled);
        QVERIFY(waitFor(agent, assign(third, shell(QStringLiteral("echo 3")))));
        QCOMPARE(assigns(agent).size(), 2);
        QList<QJsonObject> cancels;
        for (const QJsonObject& message : agent.messages()) {
            if (typeOf(message) == QLatin1String("task.cancel"))
                cancels.append(message);
        }
        QCOMPARE(cancels, (QList<QJsonObject>{agentMessage("task.cancel", first)}));
        QVERIFY(queueLines().contains(
            QStringLiteral("task.unqueued taskId=%1 agentId=mac-1 reason=cancelled").arg(second)));
    }

    void aTaskTheAgentRefusesAsBusyWaitsAgainAtTheHead()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        // The agent runs something the relay has not learnt of.
        const QString first = createdId(phone, shell(QStringLiteral("echo 1")), QStringLiteral("r1"));
        QVERIFY(waitFor(agent, assign(first, shell(QStringLiteral("echo 1")))));
        agent.send(busy(first));
        QVERIFY(waitFor(phone, queued(first, 1, shell(QStringLiteral("echo 1")), {first})));
        // Nothing more goes to the agent until the relay hears of what it runs.
        const QString second = createdId(phone, shell(QStringLiteral("echo 2")), QStringLiteral("r2"));
        QVERIFY(waitFor(phone, queued(second, 2, shell(QStringLiteral("echo 2")), {first, second})));
        agent.send(agentMessage("task.heartbeat", QStringLiteral("unknown-1")));
        agent.send(finished(QStringLiteral("unknown-1")));
        QVERIFY(waitFor(phone, unqueued(first, QStringLiteral("assigned"), {second})));
        QVERIFY(waitUntil([&] { return assigns(agent).size() == 2; }));
        // Still busy (with something else again): sent from the queue, it goes back to the head.
        agent.send(busy(first));
        QVERIFY(waitFor(phone, queued(first, 1, shell(QStringLiteral("echo 1")), {first, second})));
        agent.send(finished(QStringLiteral("unknown-2")));
        QVERIFY(waitFor(phone, unqueued(first, QStringLiteral("assigned"), {second})));
        QVERIFY(waitUntil([&] { return assigns(agent).size() == 3; }));
        agent.send(agentMessage("task.started", first));
        agent.send(finished(first));
        QVERIFY(waitFor(agent, assign(second, shell(QStringLiteral("echo 2")))));
        QCOMPARE(assigns(agent), (QList<QJsonObject>{assign(first, shell(QStringLiteral("echo 1"))),
                                                     assign(first, shell(QStringLiteral("echo 1"))),
                                                     assign(first, shell(QStringLiteral("echo 1"))),
                                                     assign(second, shell(QStringLiteral("echo 2")))}));
        // The refusals were the relay's business: no page saw the task fail.
        QVERIFY(waitFor(phone, unqueued(second, QStringLiteral("assigned"), {})));
        QCOMPARE(taskTrace(phone), (QStringList{
                                       QStringLiteral("task.queued ") + first,
                                       QStringLiteral("task.queued ") + second,
                                       QStringLiteral("task.heartbeat unknown-1"),
                                       QStringLiteral("task.finished unknown-1"),
                                       QStringLiteral("task.unqueued ") + first + QStringLiteral(" assigned"),
                                       QStringLiteral("task.queued ") + first,
                                       QStringLiteral("task.finished unknown-2"),
                                       QStringLiteral("task.unqueued ") + first + QStringLiteral(" assigned"),
                                       QStringLiteral("task.started ") + first,
                                       QStringLiteral("task.finished ") + first,
                                       QStringLiteral("task.unqueued ") + second + QStringLiteral(" assigned"),
                                   }));
        const QStringList lines = queueLines();
        QCOMPARE(lines.count(QStringLiteral("task.requeued taskId=%1 agentId=mac-1").arg(first)), 2);
        QCOMPARE(lines.mid(0, 3), (QStringList{
                                      QStringLiteral("task.create taskId=%1 agentId=mac-1").arg(first),
                                      QStringLiteral("task.requeued taskId=%1 agentId=mac-1").arg(first),
                                      QStringLiteral("task.create taskId=%1 agentId=mac-1").arg(second),
                                  }));
    }

    void theQueueIsPartOfTheAgentsPresent()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        const QString first = createdId(phone, shell(QStringLiteral("sleep 30")), QStringLiteral("r1"));
        const QString second = createdId(phone, shell(QStringLiteral("echo 2")), QStringLiteral("r2"));
        QVERIFY(waitFor(phone, queued(second, 1, shell(QStringLiteral("echo 2")), {second})));
        RelayClient late;
        QVERIFY(late.open(m_relay->port, m_relay->token));
        QCOMPARE(late.messages().first(),
                 (QJsonObject{
                     {QStringLiteral("type"), QStringLiteral("server.hello")},
                     {QStringLiteral("agents"),
                      QJsonArray{QJsonObject{
                          {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                          {QStringLiteral("busy"), true},
                          {QStringLiteral("registration"), json("{\"profiles\":[\"p\"]}")},
                          {QStringLiteral("online"), true},
                          {QStringLiteral("seq"), 2},
                          {QStringLiteral("snapshot"),
                           QJsonObject{{QStringLiteral("tasks"),
                                        QJsonArray{QJsonObject{{QStringLiteral("taskId"), first},
                                                               {QStringLiteral("kind"), QStringLiteral("shell")},
                                                               {QStringLiteral("projectPath"), QString()},
                                                               {QStringLiteral("status"), QStringLiteral("running")}}}},
                                       {QStringLiteral("proposal"), QJsonValue()},
                                       {QStringLiteral("terminals"), QJsonArray()},
                                       {QStringLiteral("queue"),
                                        QJsonArray{QJsonObject{
                                            {QStringLiteral("taskId"), second},
                                            {QStringLiteral("payload"), shell(QStringLiteral("echo 2"))}}}}}}}}}}));
    }

    void aFullQueueRefusesOneMore()
    {
        QVERIFY(startRelay());
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        createdId(phone, shell(QStringLiteral("sleep 30")), QStringLiteral("r0"));
        QStringList waiting;
        for (int i = 1; i <= 20; ++i)
            waiting.append(createdId(phone, shell(QStringLiteral("echo %1").arg(i)), QStringLiteral("r%1").arg(i)));
        QVERIFY(waitFor(phone, queued(waiting.last(), 20, shell(QStringLiteral("echo 20")), waiting)));
        QCOMPARE(create(phone, shell(QStringLiteral("echo 21")), QStringLiteral("r21")),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("error")},
                              {QStringLiteral("code"), QStringLiteral("QUEUE_FULL")},
                              {QStringLiteral("message"),
                               QStringLiteral("20 tasks already wait for agent mac-1; cancel one or try again once "
                                              "one has started")},
                              {QStringLiteral("requestId"), QStringLiteral("r21")}}));
        QCOMPARE(queueLines().count(), 41);
        // One leaves, one more may come.
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancel")},
                               {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                               {QStringLiteral("taskId"), waiting.first()}});
        const QString more = createdId(phone, shell(QStringLiteral("echo 22")), QStringLiteral("r22"));
        QVERIFY(!more.isEmpty());
        QVERIFY(waitFor(phone, queued(more, 20, shell(QStringLiteral("echo 22")), waiting.mid(1) << more)));
        QCOMPARE(assigns(agent).size(), 1);
    }

    void waitingTasksWaitForAnAgentThatComesBack()
    {
        QVERIFY(startRelay());
        auto agent = std::make_unique<RelayClient>();
        RelayClient phone;
        QVERIFY(connectAgentAndClient(*agent, phone));
        const QString first = createdId(phone, shell(QStringLiteral("sleep 30")), QStringLiteral("r1"));
        agent->send(agentMessage("task.started", first));
        const QString second = createdId(phone, shell(QStringLiteral("echo 2")), QStringLiteral("r2"));
        QVERIFY(waitFor(phone, queued(second, 1, shell(QStringLiteral("echo 2")), {second})));
        agent->close();
        QVERIFY(phone.waitForType(QStringLiteral("agent.offline")));
        // It comes back having finished the first while away.
        agent = std::make_unique<RelayClient>();
        QVERIFY(agent->openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token));
        agent->send(finished(first));
        QVERIFY(phone.waitFor([&](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("task.finished") && m.value(QStringLiteral("taskId")) == first;
        }));
        agent->send(json("{\"type\":\"agent.register\",\"profiles\":[\"p\"]}"));
        const auto registered = phone.waitFor([&](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("agent.register") && m.value(QStringLiteral("seq")).toInteger() > 3;
        });
        QVERIFY(registered);
        // Nothing goes to it before it has said what it runs on this connection: what the
        // relay sent before confirming the register is there by now.
        const qint64 seq = registered->value(QStringLiteral("seq")).toInteger();
        QVERIFY(agent->waitFor([&](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("agent.ack") &&
                   m.value(QStringLiteral("payload")).toObject().value(QStringLiteral("seq")).toInteger() >= seq;
        }));
        QVERIFY(assigns(*agent).isEmpty());
        agent->send(kIdle);
        QVERIFY(waitFor(*agent, assign(second, shell(QStringLiteral("echo 2")))));
        QCOMPARE(assigns(*agent).size(), 1);
        QVERIFY(waitFor(phone, unqueued(second, QStringLiteral("assigned"), {})));
    }

    void waitingTasksFailWhenTheAgentStaysAway()
    {
        QVERIFY(startRelay({QStringLiteral("BRINMOOR_QUEUE_OFFLINE_SEC=1")}));
        RelayClient agent;
        RelayClient phone;
        QVERIFY(connectAgentAndClient(agent, phone));
        const QString first = createdId(phone, shell(QStringLiteral("sleep 30")), QStringLiteral("r1"));
        const QString second = createdId(phone, shell(QStringLiteral("echo 2")), QStringLiteral("r2"));
        const QString third = createdId(phone, shell(QStringLiteral("echo 3")), QStringLiteral("r3"));
        QVERIFY(waitFor(phone, queued(third, 2, shell(QStringLiteral("echo 3")), {second, third})));
        agent.close();
        QVERIFY(phone.waitForType(QStringLiteral("agent.offline")));
        // A waiting task of an agent that is away can still be cancelled.
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancel")},
                               {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                               {QStringLiteral("taskId"), third}});
        QVERIFY(waitFor(phone, unqueued(third, QStringLiteral("cancelled"), {second})));
        QJsonObject failed = unqueued(second, QStringLiteral("failed"), {});
        failed.insert(QStringLiteral("error"),
                      QStringLiteral("the agent stayed offline for 1 s; the task never started"));
        QVERIFY2(waitFor(phone, failed), qPrintable(phone.trace()));
        QVERIFY(
            m_relay->waitForLine(QStringLiteral("task.unqueued taskId=%1 agentId=mac-1 reason=failed").arg(second)));
        RelayClient late;
        QVERIFY(late.open(m_relay->port, m_relay->token));
        const QJsonObject snapshot = snapshotOf(late.messages().first());
        QCOMPARE(snapshot.value(QStringLiteral("queue")), QJsonValue(QJsonArray()));
        QCOMPARE(snapshot.value(QStringLiteral("tasks")).toArray().last(),
                 QJsonValue(QJsonObject{{QStringLiteral("taskId"), second},
                                        {QStringLiteral("kind"), QStringLiteral("shell")},
                                        {QStringLiteral("projectPath"), QString()},
                                        {QStringLiteral("status"), QStringLiteral("failed")}}));
    }
};

QTEST_GUILESS_MAIN(TstRelayQueue)
#include "tst_relay_queue.moc"
