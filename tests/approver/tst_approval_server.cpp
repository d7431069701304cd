#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/test_support.h"
#include "test_certificate_authority.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocket>

#include <memory>

using namespace brinmoor::test;
using brinmoor::relay::TestCertificateAuthority;

namespace {

QJsonObject json(const char* text)
{
    return QJsonDocument::fromJson(text).object();
}

// MCPApprovalServer as an assistant tool starts it: a child with pipes, spoken to in
// lines of JSON-RPC.
struct Approver {
    QProcess process;
    QByteArray buffer;

    explicit Approver(const QStringList& env)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const QString& name : {QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("BRINMOOR_TOKEN"),
                                    QStringLiteral("BRINMOOR_TOKEN_FILE"), QStringLiteral("BRINMOOR_TASK_ID"),
                                    QStringLiteral("BRINMOOR_TLS_CA"), QStringLiteral("BRINMOOR_TLS_PINNED_CERT")})
            environment.remove(name);
        const QProcessEnvironment extra = brinmoor::test::environment(env);
        for (const QString& key : extra.keys())
            environment.insert(key, extra.value(key));
        process.setProcessEnvironment(environment);
        process.start(binDir() + QStringLiteral("/MCPApprovalServer"), QStringList());
        process.waitForStarted(10000);
    }
    ~Approver()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    void send(const QByteArray& line) { process.write(line + '\n'); }
    void call(int id, const QJsonObject& arguments, const QString& tool = QStringLiteral("request_permission"))
    {
        send(QJsonDocument(
                 QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                             {QStringLiteral("id"), id},
                             {QStringLiteral("method"), QStringLiteral("tools/call")},
                             {QStringLiteral("params"),
                              QJsonObject{{QStringLiteral("name"), tool}, {QStringLiteral("arguments"), arguments}}}})
                 .toJson(QJsonDocument::Compact));
    }
    // The next line the server writes, parsed; empty when none comes in time.
    QJsonObject next(int timeoutMs = 10000)
    {
        qsizetype newline = -1;
        waitUntil(
            [&] {
                buffer += process.readAllStandardOutput();
                newline = buffer.indexOf('\n');
                return newline >= 0;
            },
            timeoutMs);
        if (newline < 0)
            return {};
        const QJsonObject message = QJsonDocument::fromJson(buffer.left(newline)).object();
        buffer.remove(0, newline + 1);
        return message;
    }
    // The decision text of a tools/call answer.
    static QString decision(const QJsonObject& response)
    {
        return response.value(QStringLiteral("result"))
            .toObject()
            .value(QStringLiteral("content"))
            .toArray()
            .first()
            .toObject()
            .value(QStringLiteral("text"))
            .toString();
    }
};

QJsonObject result(int id, const QJsonValue& value)
{
    return QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                       {QStringLiteral("id"), id},
                       {QStringLiteral("result"), value}};
}

QJsonObject textResult(int id, const QString& text)
{
    return result(id, QJsonObject{{QStringLiteral("content"),
                                   QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                          {QStringLiteral("text"), text}}}}});
}

} // namespace

class TstApprovalServer : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void answersTheHandshakeAndListsItsTool()
    {
        Approver approver({});
        approver.send(
            "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"initialize\",\"params\":{\"protocolVersion\":"
            "\"2025-06-18\",\"capabilities\":{},\"clientInfo\":{\"name\":\"claude-code\",\"version\":\"2\"}}}");
        QCOMPARE(approver.next(),
                 result(1, json("{\"protocolVersion\":\"2025-06-18\",\"capabilities\":{\"tools\":"
                                "{\"listChanged\":false}},\"serverInfo\":{\"name\":\"MCPApprovalServer\","
                                "\"version\":\"" BRINMOOR_VERSION "\"}}")));
        approver.send("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}");
        approver.send(
            "{\"jsonrpc\":\"2.0\",\"id\":\"two\",\"method\":\"initialize\",\"params\":{\"protocolVersion\":\"1999-01-01\"}}");
        QCOMPARE(approver.next().value(QStringLiteral("result")).toObject().value(QStringLiteral("protocolVersion")),
                 QJsonValue(QStringLiteral("2025-11-25")));
        approver.send("{\"jsonrpc\":\"2.0\",\"id\":3,\"method\":\"ping\"}");
        QCOMPARE(approver.next(), result(3, QJsonObject()));
        approver.send("{\"jsonrpc\":\"2.0\",\"id\":4,\"method\":\"tools/list\"}");
        const QJsonObject tools = approver.next();
        const QJsonArray list =
            tools.value(QStringLiteral("result")).toObject().value(QStringLiteral("tools")).toArray();
        QCOMPARE(list.size(), 1);
        const QJsonObject tool = list.first().toObject();
        QCOMPARE(tool.value(QStringLiteral("name")).toString(), QStringLiteral("request_permission"));
        const QJsonObject schema = tool.value(QStringLiteral("inputSchema")).toObject();
        QCOMPARE(schema.value(QStringLiteral("required")).toArray(), QJsonArray{QStringLiteral("tool_name")});
        QCOMPARE(schema.value(QStringLiteral("properties")).toObject().keys(),
                 (QStringList{QStringLiteral("input"), QStringLiteral("tool_input"), QStringLiteral("tool_name"),
                              QStringLiteral("tool_use_id")}));
    }

    void answersProtocolErrors()
    {
        Approver approver({});
        approver.send("not json");
        QCOMPARE(approver.next(),
                 json("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32700,\"message\":\"Parse error\"}}"));
        approver.send("{\"id\":5,\"method\":\"ping\"}");
        QCOMPARE(approver.next(),
                 json("{\"jsonrpc\":\"2.0\",\"id\":5,\"error\":{\"code\":-32600,\"message\":\"Invalid Request\"}}"));
        approver.send("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/whatever\"}");
        approver.send("{\"jsonrpc\":\"2.0\",\"id\":6,\"method\":\"resources/list\"}");
        QCOMPARE(approver.next(), json("{\"jsonrpc\":\"2.0\",\"id\":6,\"error\":{\"code\":-32601,\"message\":"
                                       "\"Method not found: resources/list\"}}"));
        approver.call(7, QJsonObject(), QStringLiteral("rm_rf"));
        QCOMPARE(
            approver.next(),
            json("{\"jsonrpc\":\"2.0\",\"id\":7,\"error\":{\"code\":-32602,\"message\":\"Unknown tool: rm_rf\"}}"));
        approver.call(8, QJsonObject{{QStringLiteral("input"), QJsonObject()}});
        QCOMPARE(
            approver.next(),
            textResult(8, QStringLiteral(
                              "{\"behavior\":\"deny\",\"message\":\"request_permission needs \\\"tool_name\\\"\"}")));
    }

    void failsClosed_data()
    {
        QTest::addColumn<QStringList>("env");
        QTest::addColumn<QString>("decision");
        const quint16 closedPort = [] {
            QTcpServer probe;
            probe.listen(QHostAddress::LocalHost);
            return probe.serverPort();
        }();
        const QString url = QStringLiteral("BRINMOOR_SERVER_URL=http://127.0.0.1:") + QString::number(closedPort);
        QTest::newRow("no URL")
            << QStringList{QStringLiteral("BRINMOOR_TOKEN=t"), QStringLiteral("BRINMOOR_TASK_ID=x")}
            << QStringLiteral(
                   "{\"behavior\":\"deny\",\"message\":\"approval unavailable: BRINMOOR_SERVER_URL is not set\"}");
        QTest::newRow("no token")
            << QStringList{url, QStringLiteral("BRINMOOR_TASK_ID=x")}
            << QStringLiteral(
                   "{\"behavior\":\"deny\",\"message\":\"approval unavailable: BRINMOOR_TOKEN is not set\"}");
        QTest::newRow("unreadable token file")
            << QStringList{url, QStringLiteral("BRINMOOR_TOKEN_FILE=/nonexistent/token"),
                           QStringLiteral("BRINMOOR_TASK_ID=x")}
            << QStringLiteral("{\"behavior\":\"deny\",\"message\":\"approval unavailable: cannot read "
                              "BRINMOOR_TOKEN_FILE /nonexistent/token: No such file or directory\"}");
        QTest::newRow("no task")
            << QStringList{url, QStringLiteral("BRINMOOR_TOKEN=t")}
            << QStringLiteral(
                   "{\"behavior\":\"deny\",\"message\":\"approval unavailable: BRINMOOR_TASK_ID is not set\"}");
        QTest::newRow("not http")
            << QStringList{QStringLiteral("BRINMOOR_SERVER_URL=ftp://h"), QStringLiteral("BRINMOOR_TOKEN=t"),
                           QStringLiteral("BRINMOOR_TASK_ID=x")}
            << QStringLiteral(
                   "{\"behavior\":\"deny\",\"message\":\"approval unavailable: BRINMOOR_SERVER_URL is not an http URL: ftp://h\"}");
        QTest::newRow("no server")
            << QStringList{url, QStringLiteral("BRINMOOR_TOKEN=t"), QStringLiteral("BRINMOOR_TASK_ID=x")}
            << QStringLiteral(
                   "{\"behavior\":\"deny\",\"message\":\"approval server unreachable: Connection refused\"}");
    }

    void failsClosed()
    {
        QFETCH(QStringList, env);
        Approver approver(env);
        approver.call(1, QJsonObject{{QStringLiteral("tool_name"), QStringLiteral("Bash")}});
        QTEST(Approver::decision(approver.next()), "decision");
    }

    void deniesWhenTheServerDoesNotAnswerInTime()
    {
        // A server that accepts the request and then says nothing.
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        Approver approver(
            {QStringLiteral("BRINMOOR_SERVER_URL=http://127.0.0.1:") + QString::number(silent.serverPort()),
             QStringLiteral("BRINMOOR_TOKEN=t"), QStringLiteral("BRINMOOR_TASK_ID=x"),
             QStringLiteral("BRINMOOR_APPROVAL_WAIT_SEC=1")});
        approver.call(1, QJsonObject{{QStringLiteral("tool_name"), QStringLiteral("Bash")}});
        QCOMPARE(Approver::decision(approver.next(5000)),
                 QStringLiteral(
                     "{\"behavior\":\"deny\",\"message\":\"no answer from the approval server within 1 seconds\"}"));
    }

    void asksThePhoneThroughTheRelay()
    {
        RelayProcess relay;
        QVERIFY(relay.start());
        RelayClient phone;
        RelayClient agent;
        QVERIFY(phone.open(relay.port, relay.token));
        QVERIFY(agent.openAgent(relay.port, QStringLiteral("mac-1"), relay.token));
        phone.send(json("{\"type\":\"task.create\",\"agentId\":\"mac-1\",\"payload\":{\"action\":\"chat\"}}"));
        const auto created = phone.waitForType(QStringLiteral("task.created"));
        QVERIFY(created);
        const QString taskId = created->value(QStringLiteral("taskId")).toString();
        // The token comes in an owner-only file, as the agent hands it to codex's tool.
        QTemporaryDir folder;
        const QString tokenFile = writeFile(folder.path() + QStringLiteral("/token"), relay.token.toUtf8() + '\n');
        const QStringList env{QStringLiteral("BRINMOOR_SERVER_URL=") + relay.url() + QLatin1Char('/'),
                              QStringLiteral("BRINMOOR_TOKEN_FILE=") + tokenFile,
                              QStringLiteral("BRINMOOR_TASK_ID=") + taskId};
        Approver approver(env);

        // As `claude` asks: "input".
        approver.call(
            1, json("{\"tool_name\":\"Write\",\"input\":{\"file_path\":\"a.txt\"},\"tool_use_id\":\"toolu_9\"}"));
        auto request = phone.waitForType(QStringLiteral("permission.request"));
        QVERIFY(request);
        QCOMPARE(request->value(QStringLiteral("toolName")).toString(), QStringLiteral("Write"));
        QCOMPARE(request->value(QStringLiteral("toolInput")), QJsonValue(json("{\"file_path\":\"a.txt\"}")));
        QCOMPARE(request->value(QStringLiteral("toolUseId")).toString(), QStringLiteral("toolu_9"));
        QCOMPARE(request->value(QStringLiteral("taskId")).toString(), taskId);
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                               {QStringLiteral("requestId"), request->value(QStringLiteral("requestId"))},
                               {QStringLiteral("decision"), QStringLiteral("allow")},
                               {QStringLiteral("updatedInput"), json("{\"file_path\":\"b.txt\"}")}});
        QCOMPARE(approver.next(),
                 textResult(1, QStringLiteral("{\"behavior\":\"allow\",\"updatedInput\":{\"file_path\":\"b.txt\"}}")));

        // As the policy text asks `codex`: "tool_input".
        approver.call(2, json("{\"tool_name\":\"shell\",\"tool_input\":{\"command\":[\"rm\",\"x\"]}}"));
        request = phone.waitFor([&](const QJsonObject& m) {
            return m.value(QStringLiteral("type")) == QLatin1String("permission.request") &&
                   m.value(QStringLiteral("toolName")) == QLatin1String("shell");
        });
        QVERIFY(request);
        QCOMPARE(request->value(QStringLiteral("toolInput")), QJsonValue(json("{\"command\":[\"rm\",\"x\"]}")));
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                               {QStringLiteral("requestId"), request->value(QStringLiteral("requestId"))},
                               {QStringLiteral("decision"), QStringLiteral("deny")},
                               {QStringLiteral("message"), QStringLiteral("not that file")}});
        QCOMPARE(approver.next(),
                 textResult(2, QStringLiteral("{\"behavior\":\"deny\",\"message\":\"not that file\"}")));

        // A call the client cancels is withdrawn from the phone and never answered.
        approver.call(3, json("{\"tool_name\":\"Edit\",\"input\":{}}"));
        QVERIFY(phone.waitFor(
            [](const QJsonObject& m) { return m.value(QStringLiteral("toolName")) == QLatin1String("Edit"); }));
        approver.send("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/cancelled\",\"params\":{\"requestId\":3}}");
        QVERIFY(phone.waitFor(
            [](const QJsonObject& m) { return m.value(QStringLiteral("reason")) == QLatin1String("withdrawn"); }));
        approver.send("{\"jsonrpc\":\"2.0\",\"id\":4,\"method\":\"ping\"}");
        QCOMPARE(approver.next(), result(4, QJsonObject()));

        // A task the server does not know.
        Approver stranger({QStringLiteral("BRINMOOR_SERVER_URL=") + relay.url(),
                           QStringLiteral("BRINMOOR_TOKEN=") + relay.token, QStringLiteral("BRINMOOR_TASK_ID=T1")});
        stranger.call(1, json("{\"tool_name\":\"Bash\"}"));
        QCOMPARE(
            Approver::decision(stranger.next()),
            QStringLiteral(
                "{\"behavior\":\"deny\",\"message\":\"approval server refused the request (HTTP 404): unknown task: T1\"}"));
        // A wrong token.
        Approver wrong({QStringLiteral("BRINMOOR_SERVER_URL=") + relay.url(), QStringLiteral("BRINMOOR_TOKEN=nope"),
                        QStringLiteral("BRINMOOR_TASK_ID=") + taskId});
        wrong.call(1, json("{\"tool_name\":\"Bash\"}"));
        QCOMPARE(
            Approver::decision(wrong.next()),
            QStringLiteral(
                "{\"behavior\":\"deny\",\"message\":\"approval server refused the request (HTTP 401): unauthorized\"}"));
    }

    // A relay whose certificate no system authority vouches for: the approval tool trusts
    // it through the authorities it is given, or by the pinned certificate alone.
    void asksARelayOverTlsItIsToldToTrust()
    {
        TestCertificateAuthority authority;
        // Issued for a name the tool does not use: only the pin can make it acceptable.
        const TestCertificateAuthority::Issued named =
            authority.issue(QStringLiteral("mymac.example"), {QStringLiteral("DNS:mymac.example")});
        QVERIFY2(authority.error().isEmpty(), qPrintable(authority.error()));
        RelayProcess relay;
        QVERIFY(relay.start(environment({QStringLiteral("BRINMOOR_TLS_CERT=") + named.certificate,
                                         QStringLiteral("BRINMOOR_TLS_KEY=") + named.key})));
        RelayClient phone;
        phone.useTls(authority.clientConfiguration());
        RelayClient agent;
        agent.useTls(authority.clientConfiguration());
        // The test's clients check nothing but the authority: their name is not the point.
        for (RelayClient* client : {&phone, &agent}) {
            connect(&client->socket(), &QWebSocket::sslErrors, client,
                    [client](const QList<QSslError>&) { client->socket().ignoreSslErrors(); });
        }
        QVERIFY(phone.open(relay.port, relay.token));
        QVERIFY(agent.openAgent(relay.port, QStringLiteral("mac-1"), relay.token));
        phone.send(json("{\"type\":\"task.create\",\"agentId\":\"mac-1\",\"payload\":{\"action\":\"chat\"}}"));
        const auto created = phone.waitForType(QStringLiteral("task.created"));
        QVERIFY(created);
        const QString taskId = created->value(QStringLiteral("taskId")).toString();
        const QStringList base{QStringLiteral("BRINMOOR_SERVER_URL=") + relay.url(),
                               QStringLiteral("BRINMOOR_TOKEN=") + relay.token,
                               QStringLiteral("BRINMOOR_TASK_ID=") + taskId};
        QVERIFY(relay.url().startsWith(QLatin1String("https://127.0.0.1:")));

        // Without being told, the system's authorities do not know it.
        Approver untold(base);
        untold.call(1, json("{\"tool_name\":\"Write\",\"input\":{}}"));
        const QString refused = Approver::decision(untold.next());
        QVERIFY2(refused.startsWith(QLatin1String(
                     "{\"behavior\":\"deny\",\"message\":\"approval server unreachable: SSL handshake failed")),
                 qPrintable(refused));

        // The authority alone does not make a certificate for another name good.
        Approver byAuthority(base + QStringList{QStringLiteral("BRINMOOR_TLS_CA=") + authority.rootCertificate()});
        byAuthority.call(1, json("{\"tool_name\":\"Write\",\"input\":{}}"));
        QVERIFY(Approver::decision(byAuthority.next()).contains(QLatin1String("SSL handshake failed")));

        // The pinned certificate is trusted whatever name the server is reached by.
        Approver pinned(base + QStringList{QStringLiteral("BRINMOOR_TLS_PINNED_CERT=") + named.certificate});
        pinned.call(1, json("{\"tool_name\":\"Write\",\"input\":{\"file_path\":\"a.txt\"}}"));
        const auto request = phone.waitForType(QStringLiteral("permission.request"));
        QVERIFY(request);
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("permission.decision")},
                               {QStringLiteral("requestId"), request->value(QStringLiteral("requestId"))},
                               {QStringLiteral("decision"), QStringLiteral("deny")},
                               {QStringLiteral("message"), QStringLiteral("not over TLS either")}});
        QCOMPARE(Approver::decision(pinned.next()),
                 QStringLiteral("{\"behavior\":\"deny\",\"message\":\"not over TLS either\"}"));

        // A certificate for 127.0.0.1 from the authority it is told of.
        const TestCertificateAuthority::Issued loopback =
            authority.issue(QStringLiteral("localhost"), {QStringLiteral("IP:127.0.0.1")});
        RelayProcess second;
        QVERIFY(second.start(environment({QStringLiteral("BRINMOOR_TLS_CERT=") + loopback.certificate,
                                          QStringLiteral("BRINMOOR_TLS_KEY=") + loopback.key})));
        Approver trusting({QStringLiteral("BRINMOOR_SERVER_URL=") + second.url(),
                           QStringLiteral("BRINMOOR_TOKEN=") + second.token, QStringLiteral("BRINMOOR_TASK_ID=T1"),
                           QStringLiteral("BRINMOOR_TLS_CA=") + authority.rootCertificate()});
        trusting.call(1, json("{\"tool_name\":\"Bash\"}"));
        // Through TLS to the server, which does not know the task.
        QCOMPARE(
            Approver::decision(trusting.next()),
            QStringLiteral(
                "{\"behavior\":\"deny\",\"message\":\"approval server refused the request (HTTP 404): unknown task: T1\"}"));

        // A pin is the whole of the trust: the authority it is also told of does not
        // make another server's certificate good, even one issued for this address.
        Approver pinnedElsewhere(
            {QStringLiteral("BRINMOOR_SERVER_URL=") + second.url(), QStringLiteral("BRINMOOR_TOKEN=") + second.token,
             QStringLiteral("BRINMOOR_TASK_ID=T1"), QStringLiteral("BRINMOOR_TLS_CA=") + authority.rootCertificate(),
             QStringLiteral("BRINMOOR_TLS_PINNED_CERT=") + named.certificate});
        pinnedElsewhere.call(1, json("{\"tool_name\":\"Bash\"}"));
        const QString notThePin = Approver::decision(pinnedElsewhere.next());
        QVERIFY2(notThePin.startsWith(QLatin1String(
                     "{\"behavior\":\"deny\",\"message\":\"approval server unreachable: SSL handshake failed")),
                 qPrintable(notThePin));

        // Files it cannot use.
        Approver missing(base + QStringList{QStringLiteral("BRINMOOR_TLS_CA=/nonexistent/ca.pem")});
        missing.call(1, json("{\"tool_name\":\"Bash\"}"));
        QCOMPARE(Approver::decision(missing.next()),
                 QStringLiteral("{\"behavior\":\"deny\",\"message\":\"approval unavailable: cannot read "
                                "BRINMOOR_TLS_CA /nonexistent/ca.pem: No such file or directory\"}"));
        Approver notPem(base + QStringList{QStringLiteral("BRINMOOR_TLS_PINNED_CERT=") + named.key});
        notPem.call(1, json("{\"tool_name\":\"Bash\"}"));
        QCOMPARE(Approver::decision(notPem.next()),
                 QStringLiteral("{\"behavior\":\"deny\",\"message\":\"approval unavailable: "
                                "BRINMOOR_TLS_PINNED_CERT holds no PEM certificate: ") +
                     named.key + QStringLiteral("\"}"));
    }

    void endsWhenItsInputCloses()
    {
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        Approver approver(
            {QStringLiteral("BRINMOOR_SERVER_URL=http://127.0.0.1:") + QString::number(silent.serverPort()),
             QStringLiteral("BRINMOOR_TOKEN=t"), QStringLiteral("BRINMOOR_TASK_ID=x")});
        approver.call(1, QJsonObject{{QStringLiteral("tool_name"), QStringLiteral("Bash")}});
        QVERIFY(waitUntil([&] { return silent.hasPendingConnections(); }));
        approver.process.closeWriteChannel();
        QVERIFY(approver.process.waitForFinished(5000));
        QCOMPARE(approver.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(approver.process.exitCode(), 0);
        QCOMPARE(approver.process.readAllStandardOutput(), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TstApprovalServer)
#include "tst_approval_server.moc"
