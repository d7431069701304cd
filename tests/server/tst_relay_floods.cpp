// What a holder of the token can make the relay hold is bounded: what waits for a client,
// the terminals a client paces, the event logs of all agents together, the files of the
// web client. The agent is never the one dropped or held back for a client's doing.
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/relay_fixture.h"
#include "support/test_support.h"
#include "websocket_client.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace brinmoor::test;
namespace ws = brinmoor::relay::ws;

namespace {

const QString kToken = QStringLiteral("relay-floods-token-0123456789");

QString typeOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("type")).toString();
}

QByteArray compact(const QJsonObject& message)
{
    return QJsonDocument(message).toJson(QJsonDocument::Compact);
}

QJsonObject terminalAck(const QString& sessionId, std::optional<qint64> offset, const QString& requestId = {})
{
    QJsonObject payload{{QStringLiteral("sessionId"), sessionId}};
    if (offset)
        payload.insert(QStringLiteral("offset"), *offset);
    QJsonObject message{{QStringLiteral("type"), QStringLiteral("terminal.ack")},
                        {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                        {QStringLiteral("payload"), payload}};
    if (!requestId.isEmpty())
        message.insert(QStringLiteral("requestId"), requestId);
    return message;
}

// What the agent hears of a client's pace: {"type":"terminal.ack","payload":{…}}.
QJsonObject window(const QString& sessionId, std::optional<qint64> offset)
{
    QJsonObject payload{{QStringLiteral("sessionId"), sessionId}};
    if (offset)
        payload.insert(QStringLiteral("offset"), *offset);
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.ack")}, {QStringLiteral("payload"), payload}};
}

QByteArray opened(const QString& sessionId, const QString& projectPath)
{
    return compact(QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.opened")},
                               {QStringLiteral("sessionId"), sessionId},
                               {QStringLiteral("projectPath"), projectPath},
                               {QStringLiteral("mode"), QStringLiteral("interactive")}});
}

QByteArray logLine(qint64 n, qsizetype size)
{
    QByteArray line = "{\"type\":\"task.log\",\"taskId\":\"t\",\"line\":\"" + QByteArray::number(n) + ' ';
    line += QByteArray(std::max<qsizetype>(0, size - line.size() - 2), 'x');
    return line + "\"}";
}

// A WebSocket peer on a raw socket that can stop taking what it is sent, as a peer on a
// stalled link does: what the relay writes then waits in the relay.
class RawPeer : public QObject {
public:
    QTcpSocket socket;
    QList<QJsonObject> messages;
    quint16 closeCode = 0;
    QByteArray closeReason;

    RawPeer(quint16 port, const QByteArray& path)
    {
        connect(&socket, &QTcpSocket::readyRead, this, &RawPeer::read);
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write(ws::upgradeRequest(path, QByteArray("Authorization: Bearer " + kToken.toUtf8() + "\r\n")));
    }

    bool waitUpgraded()
    {
        return waitUntil([this] { return m_upgraded || socket.state() == QAbstractSocket::UnconnectedState; }) &&
               m_upgraded;
    }
    void send(const QByteArray& text) { socket.write(ws::maskedFrame(ws::Text, text)); }
    // Qt takes at most a byte more from the kernel until reading resumes.
    void stopReading() { socket.setReadBufferSize(1); }
    void resumeReading()
    {
        socket.setReadBufferSize(0);
        read();
    }
    bool isOpen() const { return closeCode == 0 && socket.state() == QAbstractSocket::ConnectedState; }
    QList<QJsonObject> ofType(const QString& type) const
    {
        QList<QJsonObject> found;
        for (const QJsonObject& message : messages) {
            if (typeOf(message) == type)
                found.append(message);
        }
        return found;
    }

private:
    void read()
    {
        if (socket.readBufferSize() == 1)
            return;
        m_in += socket.readAll();
        if (!m_upgraded) {
            const qsizetype end = m_in.indexOf("\r\n\r\n");
            if (end < 0 || !m_in.startsWith("HTTP/1.1 101"))
                return;
            m_in.remove(0, end + 4);
            m_upgraded = true;
        }
        qsizetype offset = 0;
        ws::Message message;
        while (m_reader.next(m_in, offset, message) == ws::FrameReader::Result::Message) {
            if (message.opcode == ws::Ping) {
                socket.write(ws::maskedFrame(ws::Pong, message.payload));
            } else if (message.opcode == ws::Close) {
                closeCode = message.payload.size() >= 2
                                ? quint16((quint8(message.payload[0]) << 8) | quint8(message.payload[1]))
                                : 1005;
                closeReason = message.payload.size() > 2 ? message.payload.sliced(2).toByteArray() : QByteArray();
            } else if (message.opcode == ws::Text) {
                messages.append(QJsonDocument::fromJson(message.payload.toByteArray()).object());
            }
        }
        m_in.remove(0, offset);
    }

    QByteArray m_in;
    ws::FrameReader m_reader{64 * 1024 * 1024, false};
    bool m_upgraded = false;
};

} // namespace

class TstRelayFloods : public QObject, private RelayFixture {
    Q_OBJECT

private:
    bool startRelay(const QStringList& env = {}) { return RelayFixture::startRelay(env, kToken); }

    // A raw agent "mac-1" that numbers its messages from 1, with the sessions open.
    std::unique_ptr<RawPeer> openAgent(const QStringList& sessions)
    {
        auto agent = std::make_unique<RawPeer>(m_relay->port, "/v1/ws/agent?agentId=mac-1");
        if (!agent->waitUpgraded())
            return nullptr;
        agent->send(R"({"type":"agent.stream","first":1,"next":1})");
        for (const QString& session : sessions)
            agent->send(opened(session, QStringLiteral("/projects/") + session));
        return agent;
    }

    // Sends a message that is answered, and waits for the answer: the relay has read
    // everything the client sent before it.
    static bool roundTrip(RelayClient& client, const QString& requestId)
    {
        client.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("flood.check")},
                                {QStringLiteral("requestId"), requestId}});
        return client
            .waitFor([&](const QJsonObject& m) { return m.value(QStringLiteral("requestId")).toString() == requestId; })
            .has_value();
    }

    QStringList linesAfterStart() { return m_relay->lines().mid(1); }

private Q_SLOTS:
    void refusesToStartWithoutUsableCaps_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<QString>("line");
        QTest::newRow("backlog") << QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES=-5")
                                 << QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_BACKLOG_BYTES is not a number of "
                                                   "bytes: -5\n");
        QTest::newRow("paced sessions") << QStringLiteral("BRINMOOR_CLIENT_PACED_SESSIONS=0")
                                        << QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_PACED_SESSIONS is not a "
                                                          "number of sessions: 0\n");
        QTest::newRow("paced sessions, a word")
            << QStringLiteral("BRINMOOR_CLIENT_PACED_SESSIONS=many")
            << QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_PACED_SESSIONS is not a number of sessions: many\n");
        QTest::newRow("paced sessions, too many")
            << QStringLiteral("BRINMOOR_CLIENT_PACED_SESSIONS=1000001")
            << QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_PACED_SESSIONS is not a number of sessions: "
                              "1000001\n");
        QTest::newRow("log total") << QStringLiteral("BRINMOOR_EVENT_LOG_TOTAL_BYTES=40MiB")
                                   << QStringLiteral("brinmoor-server: BRINMOOR_EVENT_LOG_TOTAL_BYTES is not a number "
                                                     "of bytes: 40MiB\n");
        QTest::newRow("log total zero") << QStringLiteral("BRINMOOR_EVENT_LOG_TOTAL_BYTES=0")
                                        << QStringLiteral("brinmoor-server: BRINMOOR_EVENT_LOG_TOTAL_BYTES is not a "
                                                          "number of bytes: 0\n");
    }

    void refusesToStartWithoutUsableCaps()
    {
        QFETCH(QString, setting);
        const RelayRefusal refusal =
            runRefusedRelay(environment({QStringLiteral("BRINMOOR_SHARED_TOKEN=") + kToken, setting}));
        QCOMPARE(refusal.exitCode, 2);
        QTEST(refusal.error, "line");
        QCOMPARE(refusal.output, QByteArray());
    }

    void pacesOnlySessionsTheAgentHasOpen()
    {
        QVERIFY(startRelay());
        RelayClient client;
        QVERIFY(client.open(m_relay->port, kToken));
        const auto agent = openAgent({QStringLiteral("s1"), QStringLiteral("s2")});
        QVERIFY(agent);
        QVERIFY(client.waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("terminal.opened") && m.value("sessionId") == QLatin1String("s2");
        }));
        client.send(terminalAck(QStringLiteral("never-opened"), 5));
        client.send(terminalAck(QStringLiteral("s1"), 10));
        agent->send(R"({"type":"terminal.closed","sessionId":"s1","exitCode":0})");
        QVERIFY(client.waitForType(QStringLiteral("terminal.closed")));
        client.send(terminalAck(QStringLiteral("s1"), 20));
        client.send(terminalAck(QStringLiteral("s2"), 7));
        QVERIFY(waitUntil([&] { return agent->ofType(QStringLiteral("terminal.ack")).size() >= 2; }));
        QVERIFY(roundTrip(client, QStringLiteral("after")));
        QCOMPARE(agent->ofType(QStringLiteral("terminal.ack")),
                 (QList<QJsonObject>{window(QStringLiteral("s1"), 10), window(QStringLiteral("s2"), 7)}));
        // None of them was answered: an acknowledgement has no answer.
        QCOMPARE(client.messages().last(),
                 json(R"({"type":"error","code":"UNKNOWN_TYPE","message":"unknown message type: flood.check",)"
                      R"("requestId":"after"})"));
        for (const QJsonObject& m : client.messages())
            QVERIFY2(typeOf(m) != QLatin1String("error") || m.value("requestId") == QLatin1String("after"),
                     compact(m).constData());
    }

    void capsTheSessionsOneClientPaces()
    {
        QVERIFY(startRelay({QStringLiteral("BRINMOOR_CLIENT_PACED_SESSIONS=2")}));
        RelayClient client;
        QVERIFY(client.open(m_relay->port, kToken));
        const auto agent = openAgent({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")});
        QVERIFY(agent);
        QVERIFY(client.waitFor([](const QJsonObject& m) { return m.value("sessionId") == QLatin1String("c"); }));
        client.send(terminalAck(QStringLiteral("a"), 1));
        client.send(terminalAck(QStringLiteral("b"), 1));
        client.send(terminalAck(QStringLiteral("c"), 1, QStringLiteral("third")));
        const auto refused = client.waitForType(QStringLiteral("error"));
        QVERIFY(refused);
        QCOMPARE(*refused, json(R"({"type":"error","code":"TOO_MANY_SESSIONS",)"
                                R"("message":"a client paces at most 2 terminal sessions","requestId":"third"})"));
        // What it paces already it goes on pacing; once it lets one go it may take another.
        client.send(terminalAck(QStringLiteral("a"), 2));
        client.send(terminalAck(QStringLiteral("a"), std::nullopt));
        client.send(terminalAck(QStringLiteral("c"), 3));
        // Another client is not held back by it.
        RelayClient other;
        QVERIFY(other.open(m_relay->port, kToken));
        other.send(terminalAck(QStringLiteral("a"), 9));
        QVERIFY(waitUntil([&] { return agent->ofType(QStringLiteral("terminal.ack")).size() >= 6; }));
        QCOMPARE(agent->ofType(QStringLiteral("terminal.ack")),
                 (QList<QJsonObject>{window(QStringLiteral("a"), 1), window(QStringLiteral("b"), 1),
                                     window(QStringLiteral("a"), 2), window(QStringLiteral("a"), std::nullopt),
                                     window(QStringLiteral("c"), 3), window(QStringLiteral("a"), 9)}));
        QCOMPARE(std::count_if(client.messages().cbegin(), client.messages().cend(),
                               [](const QJsonObject& m) { return typeOf(m) == QLatin1String("error"); }),
                 1);
    }

    void anAgentThatReadsSlowlyHearsTheLatestPaceAndStays()
    {
        // Were every change of pace told as it came, the client's acknowledgements would
        // pile up for the agent and get it dropped.
        QVERIFY(startRelay({QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES=262144")}));
        RawPeer client(m_relay->port, "/v1/ws/client");
        QVERIFY(client.waitUpgraded());
        const auto agent = openAgent({QStringLiteral("s")});
        QVERIFY(agent);
        QVERIFY(waitUntil([&] { return !client.ofType(QStringLiteral("terminal.opened")).isEmpty(); }));
        agent->stopReading();
        constexpr int kAcks = 150'000;
        QByteArray batch;
        for (int offset = 1; offset <= kAcks; ++offset) {
            ws::appendMaskedFrame(batch, ws::Text, compact(terminalAck(QStringLiteral("s"), offset)));
            if (batch.size() > 256 * 1024 || offset == kAcks) {
                client.socket.write(batch);
                batch.clear();
                QVERIFY(waitUntil([&] { return client.socket.bytesToWrite() < 1024 * 1024; }));
            }
        }
        client.send(R"({"type":"flood.check","requestId":"end"})");
        QVERIFY(waitUntil(
            [&] {
                return !client.messages.isEmpty() && client.messages.last().value("requestId") == QLatin1String("end");
            },
            30000));
        agent->resumeReading();
        QVERIFY(waitUntil([&] {
            const QList<QJsonObject> windows = agent->ofType(QStringLiteral("terminal.ack"));
            return !windows.isEmpty() && windows.last() == window(QStringLiteral("s"), kAcks);
        }));
        QVERIFY2(agent->isOpen(), agent->closeReason.constData());
        QVERIFY(agent->ofType(QStringLiteral("terminal.ack")).size() < kAcks);
        QCOMPARE(linesAfterStart().filter(QStringLiteral("agent.d")), QStringList());
        // When the client goes, the agent hears that nobody paces the session any more.
        client.socket.disconnectFromHost();
        QVERIFY(waitUntil([&] { return agent->messages.last() == window(QStringLiteral("s"), std::nullopt); }));
    }

    void aClientsCommandsWaitForTheAgentNotTheOtherWayRound()
    {
        QVERIFY(startRelay({QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES=262144")}));
        RelayClient client;
        QVERIFY(client.open(m_relay->port, kToken));
        const auto agent = openAgent({QStringLiteral("s")});
        QVERIFY(agent);
        QVERIFY(client.waitForType(QStringLiteral("terminal.opened")));
        agent->stopReading();
        const auto refusals = [&] {
            return int(std::count_if(client.messages().cbegin(), client.messages().cend(), [](const QJsonObject& m) {
                return m.value(QStringLiteral("code")) == QLatin1String("AGENT_BEHIND");
            }));
        };
        // Input the agent never reads: once the kernel's buffers and half of what the agent
        // may have waiting are full, the client is told, and the agent stays.
        const QString data(32 * 1024, QLatin1Char('a'));
        int sent = 0;
        while (refusals() == 0 && sent < 2000) {
            for (int i = 0; i < 16; ++i, ++sent) {
                client.send(QJsonObject{
                    {QStringLiteral("type"), QStringLiteral("terminal.input")},
                    {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                    {QStringLiteral("requestId"), QStringLiteral("input-%1").arg(sent)},
                    {QStringLiteral("payload"),
                     QJsonObject{{QStringLiteral("sessionId"), QStringLiteral("s")}, {QStringLiteral("data"), data}}}});
            }
            QVERIFY(waitUntil([&] { return client.socket().bytesToWrite() == 0 || refusals() > 0; }));
        }
        QVERIFY(roundTrip(client, QStringLiteral("read")));
        QVERIFY2(refusals() > 0, qPrintable(QStringLiteral("%1 commands sent").arg(sent)));
        const auto refused = client.waitForType(QStringLiteral("error"));
        QVERIFY(refused);
        QCOMPARE(refused->value(QStringLiteral("code")).toString(), QStringLiteral("AGENT_BEHIND"));
        QCOMPARE(refused->value(QStringLiteral("message")).toString(),
                 QStringLiteral("agent has not read what it was sent yet: mac-1"));
        QVERIFY(refused->value(QStringLiteral("requestId")).toString().startsWith(QLatin1String("input-")));
        // The agent reads again: it gets what was taken for it, and was never let go.
        agent->resumeReading();
        QVERIFY(waitUntil([&] { return agent->ofType(QStringLiteral("terminal.input")).size() == sent - refusals(); },
                          20000));
        QVERIFY(agent->isOpen());
        client.send(
            QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.input")},
                        {QStringLiteral("agentId"), QStringLiteral("mac-1")},
                        {QStringLiteral("payload"), QJsonObject{{QStringLiteral("sessionId"), QStringLiteral("s")},
                                                                {QStringLiteral("data"), "after"}}}});
        QVERIFY(waitUntil([&] {
            return agent->messages.last().value(QStringLiteral("payload")).toObject().value("data") ==
                   QLatin1String("after");
        }));
        QCOMPARE(linesAfterStart().filter(QStringLiteral("agent.d")), QStringList());
    }

    void theLogsOfAllAgentsShareOneBound()
    {
        // Each log alone may hold 32 MiB; together they may hold 2 MiB.
        QVERIFY(startRelay({QStringLiteral("BRINMOOR_EVENT_LOG_TOTAL_BYTES=2097152")}));
        RelayClient small;
        QVERIFY(small.openAgent(m_relay->port, QStringLiteral("small"), kToken));
        for (int n = 1; n <= 3; ++n)
            small.sendText(QString::fromUtf8(logLine(n, 100)));
        QVERIFY(small.waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("agent.ack") && m.value("payload").toObject().value("seq") == 3;
        }));
        RelayClient big;
        QVERIFY(big.openAgent(m_relay->port, QStringLiteral("big"), kToken));
        constexpr int kLines = 48; // 3 MiB
        for (int n = 1; n <= kLines; ++n)
            big.sendText(QString::fromUtf8(logLine(n, 64 * 1024)));
        QVERIFY(big.waitFor([](const QJsonObject& m) {
            return typeOf(m) == QLatin1String("agent.ack") && m.value("payload").toObject().value("seq") == kLines;
        }));
        // The largest log gave way, its oldest first; the small one is whole.
        RelayClient back;
        QVERIFY(back.openResuming(m_relay->port, kToken, QJsonObject{{"big", 0}, {"small", 0}}));
        const auto gap = back.waitForType(QStringLiteral("resume.gap"));
        QVERIFY(gap);
        QCOMPARE(gap->value(QStringLiteral("agentId")).toString(), QStringLiteral("big"));
        QCOMPARE(gap->value(QStringLiteral("since")).toInteger(), 0);
        QCOMPARE(gap->value(QStringLiteral("seq")).toInteger(), kLines);
        QVERIFY(back.waitFor(
            [](const QJsonObject& m) { return m.value("agentId") == QLatin1String("small") && m.value("seq") == 3; }));
        QStringList smallLines;
        for (const QJsonObject& m : back.messages()) {
            if (m.value("agentId") == QLatin1String("small") && typeOf(m) == QLatin1String("task.log"))
                smallLines.append(m.value("line").toString().left(2));
        }
        QCOMPARE(smallLines, (QStringList{"1 ", "2 ", "3 "}));
        // The newest of the big one's lines are still there.
        RelayClient recent;
        QVERIFY(recent.openResuming(m_relay->port, kToken, QJsonObject{{"big", kLines - 10}}));
        QVERIFY(recent.waitFor([](const QJsonObject& m) { return m.value("seq") == kLines; }));
        QCOMPARE(recent.messages().at(1), json(R"({"type":"resume.ok","agentId":"big","since":38})"));
        QCOMPARE(recent.messages().size(), 2 + 10);
    }

    void slowClientsShareWhatTheyAreSent()
    {
        QVERIFY(startRelay());
        auto agent = openAgent({});
        QVERIFY(agent);
        std::vector<std::unique_ptr<RawPeer>> clients;
        for (int i = 0; i < 100; ++i) {
            clients.push_back(std::make_unique<RawPeer>(m_relay->port, "/v1/ws/client"));
            QVERIFY(clients.back()->waitUpgraded());
            clients.back()->stopReading();
        }
        const qint64 before = m_relay->statusKB("VmHWM");
        // 3 MiB in lines of 1 KiB, held for 100 clients that read none of it.
        constexpr int kLines = 3 * 1024;
        QByteArray batch;
        for (int n = 1; n <= kLines; ++n)
            ws::appendMaskedFrame(batch, ws::Text, logLine(n, 1024));
        agent->socket.write(batch);
        QVERIFY(waitUntil([&] {
            const QList<QJsonObject> acks = agent->ofType(QStringLiteral("agent.ack"));
            return !acks.isEmpty() && acks.last().value("payload").toObject().value("seq") == kLines;
        }));
        const qint64 grown = m_relay->statusKB("VmHWM") - before;
        // The log's copy and one of the frames, and little for each client.
        QVERIFY2(grown < 14 * 1024, qPrintable(QStringLiteral("grew by %1 kB").arg(grown)));
        QVERIFY(linesAfterStart().filter(QStringLiteral("client.dropped")).isEmpty());
        // They all get everything once they read.
        for (const auto& client : clients)
            client->resumeReading();
        QVERIFY(waitUntil(
            [&] {
                return std::all_of(clients.begin(), clients.end(), [](const auto& client) {
                    return client->ofType(QStringLiteral("task.log")).size() == kLines;
                });
            },
            30000));
    }

    void slowReadersOfAFileShareIt()
    {
        QVERIFY(startRelay());
        QFileInfo biggest;
        const QDir assets(QStringLiteral(BRINMOOR_BIN_DIR "/../web/dist/assets"));
        for (const QFileInfo& file : assets.entryInfoList({QStringLiteral("*.js")}, QDir::Files)) {
            if (file.size() > biggest.size())
                biggest = file;
        }
        QVERIFY(biggest.size() > 200 * 1024);
        const QByteArray request =
            "GET /assets/" + biggest.fileName().toUtf8() + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        const qint64 before = m_relay->statusKB("VmHWM");
        // Readers with a small receive buffer that take nothing, from 8 addresses (the cap
        // on connections without a token of one address is 32).
        std::vector<int> readers;
        for (int i = 0; i < 64; ++i) {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            const int small = 4096;
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
            sockaddr_in from{};
            from.sin_family = AF_INET;
            from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 16 + quint32(i % 8));
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(m_relay->port);
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            QVERIFY(::bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof from) == 0);
            QVERIFY(::connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0);
            QCOMPARE(::send(fd, request.constData(), size_t(request.size()), 0), request.size());
            readers.push_back(fd);
        }
        // One more reads it whole, after the others asked: they are all being answered.
        const QByteArray whole = httpExchange(m_relay->port, request);
        QCOMPARE(whole.mid(whole.indexOf("\r\n\r\n") + 4), readFile(biggest.filePath()));
        const qint64 grown = m_relay->statusKB("VmHWM") - before;
        for (const int fd : readers)
            ::close(fd);
        // A copy of the file for each reader would be 64 times its size.
        QVERIFY2(grown < 4 * 1024, qPrintable(QStringLiteral("grew by %1 kB").arg(grown)));
    }
};

QTEST_GUILESS_MAIN(TstRelayFloods)
#include "tst_relay_floods.moc"
