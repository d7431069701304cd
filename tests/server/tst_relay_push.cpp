// Pushes to locked phones: the relay keeps its key and the devices subscribed in its state
// folder, and pushes what waits for the user (an approval, a proposal, a failed task, a
// finished answer) to a push service on loopback that checks every push as a real one
// would (the signed token) and opens it as the device would (with the device's key).
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/push_service.h"
#include "support/relay_client.h"
#include "support/relay_fixture.h"
#include "support/test_support.h"
#include "web_push_crypto.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace brinmoor::test;
namespace crypto = brinmoor::relay::WebPushCrypto;

namespace {

const QString kContact = QStringLiteral("mailto:ops@example.org");
const QString kPushOff = QStringLiteral("push is off: set BRINMOOR_PUBLIC_URL to the https address phones use, or "
                                        "BRINMOOR_PUSH_CONTACT to a mailto: address");

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

// A file's permission bits.
int modeOf(const QString& path)
{
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

class TstRelayPush : public QObject, private RelayFixture {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_state;
    std::unique_ptr<PushService> m_service;
    int m_created = 0;

    QString stateFolder() const { return m_state->filePath(QStringLiteral("relay-state")); }

    bool startPushRelay(QStringList extra = {})
    {
        extra << QStringLiteral("BRINMOOR_STATE_DIR=") + stateFolder()
              << QStringLiteral("BRINMOOR_PUSH_CA=") + m_service->authorityPath();
        if (!std::any_of(extra.cbegin(), extra.cend(),
                         [](const QString& e) { return e.startsWith("BRINMOOR_PUSH_CONTACT="); }))
            extra << QStringLiteral("BRINMOOR_PUSH_CONTACT=") + kContact;
        return startRelay(extra);
    }

    QByteArray request(const QByteArray& method, const QByteArray& path, const QByteArray& body = {}) const
    {
        QByteArray text = method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " +
                          m_relay->token.toUtf8() + "\r\n";
        if (method == "POST")
            text += "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n";
        return text + "\r\n" + body;
    }
    QString call(const QByteArray& method, const QByteArray& path, const QByteArray& body = {}) const
    {
        return statusAndBody(httpExchange(m_relay->port, request(method, path, body), 30000));
    }
    QString subscribe(const PushService::Device& device, const QString& name)
    {
        const QString answer =
            call("POST", "/v1/push/subscriptions",
                 compact({{QStringLiteral("subscription"), device.subscription()}, {QStringLiteral("device"), name}}));
        return json(answer.section(QLatin1Char('\n'), 1).toUtf8()).value(QStringLiteral("id")).toString();
    }
    static QString idFor(const PushService::Device& device)
    {
        return QString::fromLatin1(
            crypto::base64Url(QCryptographicHash::hash(device.endpoint.toUtf8(), QCryptographicHash::Sha256).left(12)));
    }

    // A fake agent, registered, and a client that has seen it do so.
    bool connectAgentAndClient(RelayClient& agent, RelayClient& client)
    {
        if (!client.open(m_relay->port, m_relay->token) ||
            !agent.openAgent(m_relay->port, QStringLiteral("mac-1"), m_relay->token))
            return false;
        agent.send(json(R"({"type":"agent.register","profiles":["p"],"projects":["/p/App"]})"));
        // It says it runs nothing, so that tasks that wait go to it.
        agent.send(json(R"({"type":"agent.state","tasks":[],"terminals":[]})"));
        return client.waitForType(QStringLiteral("agent.state")).has_value();
    }
    // A task the client created and the agent was given; its id.
    QString createTask(RelayClient& agent, RelayClient& client, const QString& action)
    {
        const QString requestId = QStringLiteral("create-%1").arg(++m_created);
        client.send(QJsonObject{
            {QStringLiteral("type"), QStringLiteral("task.create")},
            {QStringLiteral("requestId"), requestId},
            {QStringLiteral("agentId"), QStringLiteral("mac-1")},
            {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), action},
                                                    {QStringLiteral("projectPath"), QStringLiteral("/p/App")},
                                                    {QStringLiteral("prompt"), QStringLiteral("secret plan")}}}});
        const auto created = client.waitFor([&](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("task.created") && m.value(QStringLiteral("requestId")) == requestId;
        });
        const QString taskId = created ? created->value(QStringLiteral("taskId")).toString() : QString();
        if (taskId.isEmpty())
            qWarning("no task created: %s", qPrintable(client.trace()));
        if (!agent.waitFor([&](const QJsonObject& m) {
                return typeOf(m) == QLatin1String("task.assign") && m.value(QStringLiteral("taskId")) == taskId;
            })) {
            qWarning("not assigned: %s / %s", qPrintable(agent.trace()), qPrintable(client.trace()));
            return {};
        }
        agent.send(
            QJsonObject{{QStringLiteral("type"), QStringLiteral("task.started")}, {QStringLiteral("taskId"), taskId}});
        return taskId;
    }
    // Once the relay has answered a message sent after them, it has taken the client's
    // earlier ones.
    bool taken(RelayClient& client)
    {
        const QString requestId = QStringLiteral("sync-%1").arg(++m_created);
        client.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("no.such.type")},
                                {QStringLiteral("requestId"), requestId}});
        return client.waitFor([&](const QJsonObject& m) { return m.value(QStringLiteral("requestId")) == requestId; })
            .has_value();
    }
    QStringList pushLines()
    {
        QStringList lines = m_relay->lines();
        lines.removeIf([](const QString& line) { return !line.startsWith(QLatin1String("push.")); });
        return lines;
    }

private Q_SLOTS:
    void init()
    {
        m_state = std::make_unique<QTemporaryDir>();
        m_service = std::make_unique<PushService>();
        QVERIFY2(m_service->listen(), qPrintable(m_service->error()));
    }
    void cleanup()
    {
        stopRelay();
        m_service.reset();
        m_state.reset();
    }

    void theKeyIsMadeOnceAndKeptForTheOwner()
    {
        QVERIFY(startPushRelay());
        // Nothing is written before push is asked for.
        QVERIFY(!QFileInfo::exists(stateFolder()));
        const QString first = call("GET", "/v1/push/key");
        QVERIFY2(first.startsWith(QLatin1String("HTTP/1.1 200 OK\n{\"publicKey\":\"")), qPrintable(first));
        const QString key =
            json(first.section(QLatin1Char('\n'), 1).toUtf8()).value(QStringLiteral("publicKey")).toString();
        const QByteArray point = crypto::fromBase64Url(key.toLatin1()).value_or("");
        QCOMPARE(point.size(), 65);
        QCOMPARE(point.front(), '\x04');
        QCOMPARE(call("GET", "/v1/push/key"), first);
        const QString path = stateFolder() + QStringLiteral("/push-key.pem");
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.key.created path=") + path));
        QCOMPARE(modeOf(path), 0600);
        QCOMPARE(modeOf(stateFolder()), 0700);

        // The same key after a restart.
        QVERIFY(startPushRelay());
        QCOMPARE(call("GET", "/v1/push/key"), first);

        // A key file spoilt is never replaced behind the user's back.
        stopRelay();
        writeFile(path, "not a key\n");
        QVERIFY(startPushRelay());
        QCOMPARE(call("GET", "/v1/push/key"),
                 QStringLiteral("HTTP/1.1 503 Service Unavailable\n{\"error\":\"push key cannot be used: ") + path +
                     QStringLiteral(": it holds no P-256 private key\"}"));
        QCOMPARE(readFile(path), QByteArray("not a key\n"));
    }

    void withoutAContactPushIsOff()
    {
        QVERIFY(startPushRelay({QStringLiteral("BRINMOOR_PUSH_CONTACT=")}));
        const QString off =
            QStringLiteral("HTTP/1.1 503 Service Unavailable\n{\"error\":\"") + kPushOff + QStringLiteral("\"}");
        QCOMPARE(call("GET", "/v1/push/key"), off);
        QCOMPARE(call("POST", "/v1/push/subscriptions",
                      compact({{QStringLiteral("subscription"), m_service->newDevice().subscription()},
                               {QStringLiteral("device"), QStringLiteral("Phone")}})),
                 off);
        // A public URL only this network knows names nobody either; an https one does.
        QVERIFY(startPushRelay({QStringLiteral("BRINMOOR_PUSH_CONTACT="),
                                QStringLiteral("BRINMOOR_PUBLIC_URL=https://mymac.local:8443")}));
        QCOMPARE(call("GET", "/v1/push/key"), off);
        QVERIFY(startPushRelay({QStringLiteral("BRINMOOR_PUSH_CONTACT="),
                                QStringLiteral("BRINMOOR_PUBLIC_URL=https://mymac.tailnet-1234.ts.net:8443")}));
        const PushService::Device phone = m_service->newDevice();
        const QString id = subscribe(phone, QStringLiteral("Phone"));
        QCOMPARE(call("POST", "/v1/push/subscriptions/" + id.toLatin1() + "/test"),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"status\":201}"));
        QCOMPARE(m_service->pushes().first().claims.value(QStringLiteral("sub")).toString(),
                 QStringLiteral("https://mymac.tailnet-1234.ts.net:8443"));
    }

    void settingsThatCannotBeUsedStopTheStart_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<QString>("error");
        QTest::newRow("not a contact") << QStringLiteral("BRINMOOR_PUSH_CONTACT=ops@example.org")
                                       << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CONTACT is not a mailto: "
                                                         "address or an https: URL: ops@example.org");
        QTest::newRow("http") << QStringLiteral("BRINMOOR_PUSH_CONTACT=http://example.org")
                              << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CONTACT is not a mailto: address or "
                                                "an https: URL: http://example.org");
        QTest::newRow("localhost mail") << QStringLiteral("BRINMOOR_PUSH_CONTACT=mailto:me@localhost")
                                        << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CONTACT names a local "
                                                          "address, which push services refuse: mailto:me@localhost");
        QTest::newRow("loopback url") << QStringLiteral("BRINMOOR_PUSH_CONTACT=https://127.0.0.1:8443")
                                      << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CONTACT names a local "
                                                        "address, which push services refuse: https://127.0.0.1:8443");
        QTest::newRow("lan name") << QStringLiteral("BRINMOOR_PUSH_CONTACT=mailto:me@mymac.local")
                                  << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CONTACT names a local address, "
                                                    "which push services refuse: mailto:me@mymac.local");
        QTest::newRow("private") << QStringLiteral("BRINMOOR_PUSH_CONTACT=mailto:me@[192.168.1.20]")
                                 << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CONTACT names a local address, "
                                                   "which push services refuse: mailto:me@[192.168.1.20]");
        QTest::newRow("no ca file") << QStringLiteral("BRINMOOR_PUSH_CA=/nonexistent/ca.pem")
                                    << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CA cannot be read: "
                                                      "/nonexistent/ca.pem: No such file or directory");
        QTest::newRow("ca file without pem") << QStringLiteral("BRINMOOR_PUSH_CA=/etc/hostname")
                                             << QStringLiteral("brinmoor-server: BRINMOOR_PUSH_CA holds no PEM "
                                                               "certificate: /etc/hostname");
    }
    void settingsThatCannotBeUsedStopTheStart()
    {
        QFETCH(QString, setting);
        QFETCH(QString, error);
        const RelayRefusal refusal = runRefusedRelay(
            environment({QStringLiteral("BRINMOOR_SHARED_TOKEN=relay-token-7f3a9c1e5b2d4086"), setting}));
        QCOMPARE(refusal.exitCode, 2);
        QCOMPARE(refusal.error.trimmed(), error);
    }

    void subscriptionsAreCheckedListedAndRemoved()
    {
        QVERIFY(startPushRelay());
        const PushService::Device phone = m_service->newDevice();
        QJsonObject subscription = phone.subscription();
        const auto post = [&](const QJsonValue& sub, const QJsonValue& device) {
            return call("POST", "/v1/push/subscriptions",
                        compact({{QStringLiteral("subscription"), sub}, {QStringLiteral("device"), device}}));
        };
        const QString bad = QStringLiteral("HTTP/1.1 400 Bad Request\n{\"error\":\"%1\"}");
        QCOMPARE(call("POST", "/v1/push/subscriptions", "[1]"),
                 bad.arg(QStringLiteral("the body must be a JSON object")));
        QJsonObject http = subscription;
        http[QStringLiteral("endpoint")] = QStringLiteral("http://127.0.0.1/push/1");
        QCOMPARE(post(http, QStringLiteral("Phone")),
                 bad.arg(QStringLiteral("subscription.endpoint must be an https URL")));
        QJsonObject wrongKey = subscription;
        QJsonObject keys = wrongKey.value(QStringLiteral("keys")).toObject();
        keys[QStringLiteral("p256dh")] = QString::fromLatin1(crypto::base64Url(QByteArray(65, '\x04')));
        wrongKey[QStringLiteral("keys")] = keys;
        QCOMPARE(post(wrongKey, QStringLiteral("Phone")),
                 bad.arg(QStringLiteral("subscription.keys.p256dh must be a P-256 public key (65 bytes, base64url)")));
        QJsonObject shortAuth = subscription;
        keys = shortAuth.value(QStringLiteral("keys")).toObject();
        keys[QStringLiteral("auth")] = QStringLiteral("AAAA");
        shortAuth[QStringLiteral("keys")] = keys;
        QCOMPARE(post(shortAuth, QStringLiteral("Phone")),
                 bad.arg(QStringLiteral("subscription.keys.auth must be 16 bytes, base64url")));
        QCOMPARE(post(subscription, QString(65, QLatin1Char('x'))),
                 bad.arg(QStringLiteral("device must be a name of 1 to 64 characters")));
        QCOMPARE(post(subscription, 7), bad.arg(QStringLiteral("device must be a name of 1 to 64 characters")));

        const QString id = idFor(phone);
        QCOMPARE(post(subscription, QStringLiteral("Phone")),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"id\":\"%1\"}").arg(id));
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.subscribed id=%1 device=Phone").arg(id)));
        // Again from the same browser: the same id, the new name.
        QCOMPARE(post(subscription, QStringLiteral("Anna's phone")),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"id\":\"%1\"}").arg(id));
        const QString listed = call("GET", "/v1/push/subscriptions");
        const QJsonArray list =
            json(listed.section(QLatin1Char('\n'), 1).toUtf8()).value(QStringLiteral("subscriptions")).toArray();
        QCOMPARE(list.size(), 1);
        QJsonObject entry = list.first().toObject();
        QVERIFY(entry.take(QStringLiteral("createdAt")).toString().endsWith(QLatin1Char('Z')));
        QCOMPARE(entry, (QJsonObject{{QStringLiteral("id"), id},
                                     {QStringLiteral("device"), QStringLiteral("Anna's phone")},
                                     {QStringLiteral("origin"), m_service->origin()},
                                     {QStringLiteral("lastPush"), QJsonValue::Null}}));
        QVERIFY(!listed.contains(QLatin1String("/push/device-")));
        const QString kept = stateFolder() + QStringLiteral("/push-subscriptions.json");
        QCOMPARE(modeOf(kept), 0600);

        QCOMPARE(call("DELETE", "/v1/push/subscriptions/" + id.toLatin1()),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"ok\":true}"));
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.unsubscribed id=%1 device=Anna's phone").arg(id)));
        QCOMPARE(call("DELETE", "/v1/push/subscriptions/" + id.toLatin1()),
                 QStringLiteral("HTTP/1.1 404 Not Found\n{\"error\":\"no subscription: %1\"}").arg(id));
        QCOMPARE(call("POST", "/v1/push/subscriptions/" + id.toLatin1() + "/test"),
                 QStringLiteral("HTTP/1.1 404 Not Found\n{\"error\":\"no subscription: %1\"}").arg(id));
        QCOMPARE(call("GET", "/v1/push/subscriptions"), QStringLiteral("HTTP/1.1 200 OK\n{\"subscriptions\":[]}"));

        // Paths and methods the relay does not have.
        QCOMPARE(call("GET", "/v1/push/nothing"), QStringLiteral("HTTP/1.1 404 Not Found\n{\"error\":\"not found\"}"));
        QCOMPARE(call("GET", "/v1/push/subscriptions/a.b"),
                 QStringLiteral("HTTP/1.1 404 Not Found\n{\"error\":\"not found\"}"));
        const QByteArray wrongMethod = httpExchange(m_relay->port, request("PUT", "/v1/push/subscriptions"));
        QCOMPARE(statusAndBody(wrongMethod),
                 QStringLiteral("HTTP/1.1 405 Method Not Allowed\n{\"error\":\"method not allowed\"}"));
        QCOMPARE(responseHeader(wrongMethod, "allow").value_or("(none)"), QByteArray("GET, POST"));
        QCOMPARE(statusAndBody(httpExchange(m_relay->port, "GET /v1/push/key HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")),
                 QStringLiteral("HTTP/1.1 401 Unauthorized\n{\"error\":\"unauthorized\"}"));
    }

    void anApprovalIsPushedAndDecidedFromTheNotification()
    {
        QVERIFY(startPushRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        const PushService::Device phone = m_service->newDevice();
        const QString id = subscribe(phone, QStringLiteral("Phone"));
        const QString taskId = createTask(agent, client, QStringLiteral("chat"));
        QVERIFY(!taskId.isEmpty());

        HeldRequest approval;
        approval.start(m_relay->port,
                       request("POST", "/v1/approvals",
                               compact({{QStringLiteral("taskId"), taskId},
                                        {QStringLiteral("toolName"), QStringLiteral("Bash")},
                                        {QStringLiteral("toolInput"),
                                         QJsonObject{{QStringLiteral("command"), QStringLiteral("rm -rf build")}}}})));
        const auto asked = client.waitForType(QStringLiteral("permission.request"));
        QVERIFY(asked);
        const QString requestId = asked->value(QStringLiteral("requestId")).toString();
        QVERIFY(m_service->waitForPushes(1));
        const PushService::Push& push = m_service->pushes().first();
        QVERIFY2(push.problem.isEmpty(), qPrintable(push.problem));
        QCOMPARE(push.path, QStringLiteral("/push/device-1"));
        QCOMPARE(*push.payload, compact({{QStringLiteral("kind"), QStringLiteral("approval")},
                                         {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                                         {QStringLiteral("projectPath"), QStringLiteral("/p/App")},
                                         {QStringLiteral("project"), QStringLiteral("App")},
                                         {QStringLiteral("taskId"), taskId},
                                         {QStringLiteral("requestId"), requestId},
                                         {QStringLiteral("tool"), QStringLiteral("Bash")}}));
        QCOMPARE(push.headers.value("ttl"), QByteArray("600"));
        QCOMPARE(push.headers.value("urgency"), QByteArray("high"));
        QCOMPARE(push.headers.value("content-type"), QByteArray("application/octet-stream"));
        QCOMPARE(push.claims.value(QStringLiteral("sub")).toString(), kContact);
        const QString key = json(call("GET", "/v1/push/key").section(QLatin1Char('\n'), 1).toUtf8())
                                .value(QStringLiteral("publicKey"))
                                .toString();
        QCOMPARE(QString::fromLatin1(push.key), key);
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.sent id=%1 kind=approval status=201").arg(id)));

        // The notification's Allow decides it; tapped again, or Deny after it, the first holds.
        const QByteArray allow =
            compact({{QStringLiteral("requestId"), requestId}, {QStringLiteral("decision"), QStringLiteral("allow")}});
        const QString decided =
            QStringLiteral("HTTP/1.1 200 OK\n{\"decision\":\"allow\",\"reason\":\"client\",\"requestId\":\"%1\"}")
                .arg(requestId);
        QCOMPARE(call("POST", "/v1/push/decision", allow), decided);
        QCOMPARE(approval.result(),
                 QStringLiteral(
                     "HTTP/1.1 200 OK\n{\"behavior\":\"allow\",\"updatedInput\":{\"command\":\"rm -rf build\"}}"));
        QVERIFY(client.waitForType(QStringLiteral("permission.resolved")));
        QCOMPARE(call("POST", "/v1/push/decision", allow), decided);
        QCOMPARE(call("POST", "/v1/push/decision",
                      compact({{QStringLiteral("requestId"), requestId},
                               {QStringLiteral("decision"), QStringLiteral("deny")}})),
                 decided);

        const QString bad = QStringLiteral("HTTP/1.1 400 Bad Request\n{\"error\":\"%1\"}");
        QCOMPARE(call("POST", "/v1/push/decision", "nope"), bad.arg(QStringLiteral("the body must be a JSON object")));
        QCOMPARE(call("POST", "/v1/push/decision", "{\"decision\":\"allow\"}"),
                 bad.arg(QStringLiteral("requestId is missing")));
        QCOMPARE(call("POST", "/v1/push/decision", "{\"requestId\":\"R\",\"decision\":\"maybe\"}"),
                 bad.arg(QStringLiteral("decision must be \\\"allow\\\" or \\\"deny\\\"")));
        QCOMPARE(call("POST", "/v1/push/decision", "{\"requestId\":\"R-unknown\",\"decision\":\"deny\"}"),
                 QStringLiteral("HTTP/1.1 404 Not Found\n{\"error\":\"no pending permission request: R-unknown\"}"));
    }

    void proposalsFailuresAndAnswersArePushedButNotOtherEnds()
    {
        QVERIFY(startPushRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        const QString id = subscribe(m_service->newDevice(), QStringLiteral("Phone"));
        const auto payloadOf = [&](const QString& kind, const QString& taskId) {
            return compact({{QStringLiteral("kind"), kind},
                            {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                            {QStringLiteral("projectPath"), QStringLiteral("/p/App")},
                            {QStringLiteral("project"), QStringLiteral("App")},
                            {QStringLiteral("taskId"), taskId}});
        };

        const QString proposal = createTask(agent, client, QStringLiteral("ai_task"));
        agent.send(json(
            QStringLiteral(
                R"({"type":"task.awaiting_approval","taskId":"%1","proposalId":"p1","proposalSummary":"1 file","proposalCommentary":"c","proposalDiff":"diff --git a/x b/x","proposalFiles":["x"]})")
                .arg(proposal)
                .toUtf8()));
        QVERIFY(m_service->waitForPushes(1));
        QCOMPARE(*m_service->pushes().at(0).payload, payloadOf(QStringLiteral("proposal"), proposal));
        QCOMPARE(m_service->pushes().at(0).headers.value("urgency"), QByteArray("normal"));
        QCOMPARE(m_service->pushes().at(0).headers.value("ttl"), QByteArray("86400"));
        agent.send(
            json(QStringLiteral(R"({"type":"task.finished","taskId":"%1","exitCode":0})").arg(proposal).toUtf8()));

        const QString failing = createTask(agent, client, QStringLiteral("shell"));
        agent.send(json(QStringLiteral(R"({"type":"task.failed","taskId":"%1","error":"exit 2","exitCode":2})")
                            .arg(failing)
                            .toUtf8()));
        QVERIFY(m_service->waitForPushes(2));
        QCOMPARE(*m_service->pushes().at(1).payload, payloadOf(QStringLiteral("failed"), failing));

        const QString shell = createTask(agent, client, QStringLiteral("shell"));
        agent.send(json(QStringLiteral(R"({"type":"task.finished","taskId":"%1","exitCode":0})").arg(shell).toUtf8()));
        const QString chat = createTask(agent, client, QStringLiteral("chat"));
        agent.send(
            json(QStringLiteral(R"({"type":"task.chat.final","taskId":"%1","text":"done"})").arg(chat).toUtf8()));
        agent.send(json(QStringLiteral(R"({"type":"task.finished","taskId":"%1","exitCode":0})").arg(chat).toUtf8()));
        QVERIFY(m_service->waitForPushes(3));
        // Only the chat's answer: a shell command that finished, or a proposal that was
        // applied, waits for nobody.
        QCOMPARE(*m_service->pushes().at(2).payload, payloadOf(QStringLiteral("answer"), chat));
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.sent id=%1 kind=answer status=201").arg(id)));
        QCOMPARE(m_service->pushes().size(), 3);
        for (const PushService::Push& push : m_service->pushes())
            QVERIFY2(push.problem.isEmpty(), qPrintable(push.problem));
    }

    void aDeviceShowingTheCardIsNotPushed()
    {
        QVERIFY(startPushRelay());
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        const PushService::Device phone = m_service->newDevice();
        const PushService::Device laptop = m_service->newDevice();
        const QString phoneId = subscribe(phone, QStringLiteral("Phone"));
        subscribe(laptop, QStringLiteral("Laptop"));

        const QString taskId = createTask(agent, client, QStringLiteral("shell"));
        client.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("client.viewing")},
                                {QStringLiteral("endpoint"), phone.endpoint},
                                {QStringLiteral("card"), QJsonObject{{QStringLiteral("taskId"), taskId}}}});
        QVERIFY(taken(client));
        agent.send(json(
            QStringLiteral(R"({"type":"task.failed","taskId":"%1","error":"x","exitCode":1})").arg(taskId).toUtf8()));
        QVERIFY(m_service->waitForPushes(1));
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.skipped id=%1 kind=failed reason=viewing").arg(phoneId)));
        QCOMPARE(m_service->pushes().first().path, QStringLiteral("/push/device-2"));

        // Hidden, or gone, it is pushed again.
        client.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("client.viewing")},
                                {QStringLiteral("endpoint"), phone.endpoint},
                                {QStringLiteral("card"), QJsonValue::Null}});
        QVERIFY(taken(client));
        const QString next = createTask(agent, client, QStringLiteral("shell"));
        agent.send(json(
            QStringLiteral(R"({"type":"task.failed","taskId":"%1","error":"x","exitCode":1})").arg(next).toUtf8()));
        QVERIFY(m_service->waitForPushes(3));

        client.send(json(R"({"type":"client.viewing","card":null,"requestId":"v1"})"));
        const auto noEndpoint = client.waitFor(
            [](const QJsonObject& m) { return m.value(QStringLiteral("requestId")) == QLatin1String("v1"); });
        QVERIFY(noEndpoint);
        QCOMPARE(*noEndpoint,
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("error")},
                              {QStringLiteral("code"), QStringLiteral("BAD_REQUEST")},
                              {QStringLiteral("message"), QStringLiteral("client.viewing needs a string \"endpoint\"")},
                              {QStringLiteral("requestId"), QStringLiteral("v1")}}));
        client.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("client.viewing")},
                                {QStringLiteral("endpoint"), phone.endpoint},
                                {QStringLiteral("card"), QStringLiteral("t1")},
                                {QStringLiteral("requestId"), QStringLiteral("v2")}});
        const auto notACard = client.waitFor(
            [](const QJsonObject& m) { return m.value(QStringLiteral("requestId")) == QLatin1String("v2"); });
        QVERIFY(notACard);
        QCOMPARE(*notACard, (QJsonObject{{QStringLiteral("type"), QStringLiteral("error")},
                                         {QStringLiteral("code"), QStringLiteral("BAD_REQUEST")},
                                         {QStringLiteral("message"),
                                          QStringLiteral("client.viewing needs \"card\" as an object or null")},
                                         {QStringLiteral("requestId"), QStringLiteral("v2")}}));
    }

    void aGoneSubscriptionIsForgottenAndABusyServiceTriedAgain()
    {
        QVERIFY(startPushRelay());
        const PushService::Device phone = m_service->newDevice();
        const QString id = subscribe(phone, QStringLiteral("Phone"));

        m_service->answerNext(503);
        m_service->answerNext(429, "1");
        QCOMPARE(call("POST", "/v1/push/subscriptions/" + id.toLatin1() + "/test"),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"status\":201}"));
        QCOMPARE(m_service->pushes().size(), 3);
        QCOMPARE(*m_service->pushes().last().payload, QByteArray(R"({"device":"Phone","kind":"test"})"));
        QCOMPARE(pushLines().mid(pushLines().size() - 3),
                 (QStringList{QStringLiteral("push.retry id=%1 status=503 seconds=1").arg(id),
                              QStringLiteral("push.retry id=%1 status=429 seconds=1").arg(id),
                              QStringLiteral("push.sent id=%1 kind=test status=201").arg(id)}));
        QVERIFY(call("GET", "/v1/push/subscriptions").contains(QLatin1String("\"status\":201")));

        m_service->answerNext(410);
        QCOMPARE(call("POST", "/v1/push/subscriptions/" + id.toLatin1() + "/test"),
                 QStringLiteral("HTTP/1.1 502 Bad Gateway\n{\"error\":\"the push service answered 410: \"}"));
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.gone id=%1 device=Phone status=410").arg(id)));
        QCOMPARE(call("GET", "/v1/push/subscriptions"), QStringLiteral("HTTP/1.1 200 OK\n{\"subscriptions\":[]}"));
    }

    void aServiceOutOfReachIsTriedFiveTimes()
    {
        // A port nobody listens on.
        quint16 closedPort = 0;
        {
            QTcpServer probe;
            QVERIFY(probe.listen(QHostAddress::LocalHost));
            closedPort = probe.serverPort();
        }
        QVERIFY(startPushRelay());
        PushService::Device phone = m_service->newDevice();
        QJsonObject subscription = phone.subscription();
        subscription[QStringLiteral("endpoint")] = QStringLiteral("https://127.0.0.1:%1/push/away").arg(closedPort);
        const QString answer = call("POST", "/v1/push/subscriptions",
                                    compact({{QStringLiteral("subscription"), subscription},
                                             {QStringLiteral("device"), QStringLiteral("Away")}}));
        const QString id = json(answer.section(QLatin1Char('\n'), 1).toUtf8()).value(QStringLiteral("id")).toString();
        QCOMPARE(call("POST", "/v1/push/subscriptions/" + id.toLatin1() + "/test"),
                 QStringLiteral("HTTP/1.1 502 Bad Gateway\n{\"error\":\"the push service could not be reached: "
                                "Connection refused\"}"));
        QCOMPARE(pushLines().mid(pushLines().size() - 5),
                 (QStringList{QStringLiteral("push.retry id=%1 status=0 seconds=1").arg(id),
                              QStringLiteral("push.retry id=%1 status=0 seconds=2").arg(id),
                              QStringLiteral("push.retry id=%1 status=0 seconds=4").arg(id),
                              QStringLiteral("push.retry id=%1 status=0 seconds=8").arg(id),
                              QStringLiteral("push.failed id=%1 status=0 reason=gave up after 5 tries").arg(id)}));
    }

    void aRelayThatStopsAnswersTheTestItWasTrying()
    {
        quint16 closedPort = 0;
        {
            QTcpServer probe;
            QVERIFY(probe.listen(QHostAddress::LocalHost));
            closedPort = probe.serverPort();
        }
        QVERIFY(startPushRelay());
        QJsonObject subscription = m_service->newDevice().subscription();
        subscription[QStringLiteral("endpoint")] = QStringLiteral("https://127.0.0.1:%1/push/away").arg(closedPort);
        const QString answer = call("POST", "/v1/push/subscriptions",
                                    compact({{QStringLiteral("subscription"), subscription},
                                             {QStringLiteral("device"), QStringLiteral("Away")}}));
        const QString id = json(answer.section(QLatin1Char('\n'), 1).toUtf8()).value(QStringLiteral("id")).toString();
        HeldRequest test;
        test.start(m_relay->port, request("POST", "/v1/push/subscriptions/" + id.toLatin1() + "/test"));
        QVERIFY(m_relay->waitForLine(QStringLiteral("push.retry id=%1 status=0 seconds=1").arg(id)));
        m_relay->process.terminate();
        QCOMPARE(test.result(),
                 QStringLiteral("HTTP/1.1 503 Service Unavailable\n{\"error\":\"the server shut down before the push "
                                "service answered\"}"));
        QVERIFY(waitUntil([&] { return m_relay->process.state() == QProcess::NotRunning; }, 5000));
        QCOMPARE(m_relay->process.exitCode(), 0);
    }

    void subscriptionsOutliveARestart()
    {
        QVERIFY(startPushRelay());
        const PushService::Device phone = m_service->newDevice();
        const QString id = subscribe(phone, QStringLiteral("Phone"));
        QVERIFY(!id.isEmpty());
        const QString key = call("GET", "/v1/push/key");

        QVERIFY(startPushRelay());
        QCOMPARE(call("GET", "/v1/push/key"), key);
        QVERIFY(call("GET", "/v1/push/subscriptions").contains(QStringLiteral("\"id\":\"%1\"").arg(id)));
        RelayClient agent;
        RelayClient client;
        QVERIFY(connectAgentAndClient(agent, client));
        const QString taskId = createTask(agent, client, QStringLiteral("shell"));
        agent.send(json(
            QStringLiteral(R"({"type":"task.failed","taskId":"%1","error":"x","exitCode":1})").arg(taskId).toUtf8()));
        QVERIFY(m_service->waitForPushes(1));
        QVERIFY2(m_service->pushes().first().problem.isEmpty(), qPrintable(m_service->pushes().first().problem));
        QCOMPARE(m_service->pushes().first().path, QStringLiteral("/push/device-1"));

        // Started without a contact, it keeps them but pushes nothing, and says why once.
        QVERIFY(startPushRelay({QStringLiteral("BRINMOOR_PUSH_CONTACT=")}));
        RelayClient agent2;
        RelayClient client2;
        QVERIFY(connectAgentAndClient(agent2, client2));
        for (int i = 0; i < 2; ++i) {
            const QString failed = createTask(agent2, client2, QStringLiteral("shell"));
            agent2.send(json(QStringLiteral(R"({"type":"task.failed","taskId":"%1","error":"x","exitCode":1})")
                                 .arg(failed)
                                 .toUtf8()));
            QVERIFY(client2.waitFor([&](const QJsonObject& m) {
                return typeOf(m) == QLatin1String("task.failed") && m.value(QStringLiteral("taskId")) == failed;
            }));
        }
        QVERIFY(call("GET", "/v1/push/subscriptions").contains(QStringLiteral("\"id\":\"%1\"").arg(id)));
        QCOMPARE(pushLines(), QStringList{QStringLiteral("push.off reason=") + kPushOff});
        QCOMPARE(m_service->pushes().size(), 1);
    }
};

QTEST_GUILESS_MAIN(TstRelayPush)
#include "tst_relay_push.moc"
