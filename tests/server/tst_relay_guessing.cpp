// How fast the relay judges wrong tokens, which names it answers to, and whether many
// connections with the right token from one address (phones behind one NAT coming back
// together) all get through: real sockets against the real relay process, from several
// loopback addresses, as from several machines.
#include "base/open_file_limit.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/test_support.h"
#include "websocket_client.h"

#include <QElapsedTimer>
#include <QHostInfo>
#include <QNetworkInterface>
#include <QTcpSocket>
#include <QTest>

#include <algorithm>
#include <memory>
#include <vector>

using namespace brinmoor::test;
namespace ws = brinmoor::relay::ws;

namespace {

// The pace the relay keeps: from an address's failure to its next judgment, and between
// two failures of addresses that failed recently.
constexpr qint64 kSpacingMs = 250;
constexpr qint64 kSharedSlotMs = 10;

const QString kUnauthorized = QStringLiteral("HTTP/1.1 401 Unauthorized\n{\"error\":\"unauthorized\"}");
const QString kTooMany =
    QStringLiteral("HTTP/1.1 429 Too Many Requests\n{\"error\":\"too many failed attempts; try again later\"}");
const QString kMisdirected = QStringLiteral(
    "HTTP/1.1 421 Misdirected Request\n{\"error\":\"host not allowed: add it to BRINMOOR_ALLOWED_HOSTS\"}");

QByteArray agentsRequest(const QByteArray& token, const QByteArray& extraHeaders = {})
{
    return "GET /v1/agents HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + token + "\r\n" + extraHeaders +
           "\r\n";
}

// One request on a connection of its own from `from`: what came back, and when its first
// bytes came, on the test's clock.
class Attempt : public QObject {
public:
    QTcpSocket socket;
    QByteArray answer;
    qint64 answeredAt = -1;

    Attempt(quint16 port, const QString& from, const QByteArray& request, const QElapsedTimer& clock)
    {
        if (from != QLatin1String("127.0.0.1"))
            socket.bind(QHostAddress(from));
        connect(&socket, &QTcpSocket::readyRead, this, [this, &clock] {
            if (answeredAt < 0)
                answeredAt = clock.elapsed();
            answer += socket.readAll();
        });
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        socket.write(request);
    }

    // A plain answer has come whole (the relay closed), or an upgrade's head has.
    bool done() const
    {
        return socket.state() == QAbstractSocket::UnconnectedState ||
               (answer.startsWith("HTTP/1.1 101") && answer.contains("\r\n\r\n"));
    }
    bool upgraded() const { return answer.startsWith("HTTP/1.1 101 Switching Protocols\r\n"); }
};

using Attempts = std::vector<std::unique_ptr<Attempt>>;

bool allDone(const Attempts& attempts, int timeoutMs = 10000)
{
    return waitUntil(
        [&] { return std::all_of(attempts.begin(), attempts.end(), [](const auto& a) { return a->done(); }); },
        timeoutMs);
}

qsizetype answered(const Attempts& attempts)
{
    return std::count_if(attempts.begin(), attempts.end(), [](const auto& a) { return a->answeredAt >= 0; });
}

// The attempts in the order their answers came.
std::vector<const Attempt*> byAnswerTime(const Attempts& attempts)
{
    std::vector<const Attempt*> sorted;
    for (const auto& attempt : attempts)
        sorted.push_back(attempt.get());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Attempt* a, const Attempt* b) { return a->answeredAt < b->answeredAt; });
    return sorted;
}

// Checks that the n-th answer (from 0) came no sooner than `earliest(n)` ms after `sent`.
bool keptThePace(const std::vector<const Attempt*>& sorted, qint64 sent, const std::function<qint64(int)>& earliest)
{
    for (int n = 0; n < int(sorted.size()); ++n) {
        // The relay's clock counts whole milliseconds.
        if (sorted[n]->answeredAt - sent < earliest(n) - 2) {
            qWarning("answer %d came %lld ms after the guesses went out, before %lld ms", n,
                     sorted[n]->answeredAt - sent, earliest(n));
            return false;
        }
    }
    return true;
}

} // namespace

class TstRelayGuessing : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<RelayProcess> m_relay;
    QElapsedTimer m_clock;

    QStringList linesAfterStart() { return m_relay->lines().mid(1); }

    std::unique_ptr<Attempt> attempt(const QString& from, const QByteArray& request)
    {
        return std::make_unique<Attempt>(m_relay->port, from, request, m_clock);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A wave of a thousand connections takes as many descriptors here.
        brinmoor::raiseOpenFileLimit();
        m_clock.start();
    }
    void init() { m_relay = std::make_unique<RelayProcess>(); }
    void cleanup() { m_relay.reset(); }

    void judgesTheGuessesOfOneAddressAtItsPace()
    {
        QVERIFY(m_relay->start());
        // Twelve guesses on twelve connections at once: the first is judged at once, each
        // of the others a quarter of a second after the failure before it.
        const qint64 sent = m_clock.elapsed();
        Attempts guesses;
        for (int i = 0; i < 12; ++i)
            guesses.push_back(attempt(QStringLiteral("127.0.0.1"), agentsRequest("guess-" + QByteArray::number(i))));
        // Another address with the right token is not held up by them.
        QVERIFY(waitUntil([&] { return answered(guesses) >= 1; }));
        const auto user = attempt(QStringLiteral("127.0.0.2"), agentsRequest(m_relay->token.toUtf8()));
        QVERIFY(waitUntil([&] { return user->done(); }));
        QCOMPARE(statusAndBody(user->answer), QStringLiteral("HTTP/1.1 200 OK\n{\"agents\":[]}"));
        QVERIFY2(answered(guesses) <= 6, qPrintable(QString::number(answered(guesses))));

        QVERIFY(allDone(guesses));
        const std::vector<const Attempt*> sorted = byAnswerTime(guesses);
        QVERIFY(keptThePace(sorted, sent, [](int n) { return n * kSpacingMs; }));
        // Ten wrong ones block the address: its wrong ones after that get 429.
        QStringList answers;
        for (const Attempt* guess : sorted)
            answers += statusAndBody(guess->answer);
        QCOMPARE(answers, QStringList(10, kUnauthorized) + QStringList(2, kTooMany));
        QCOMPARE(responseHeader(sorted.back()->answer, "retry-after"), std::optional<QByteArray>("60"));

        // The right token from the blocked address is still served, in its turn.
        const auto back = attempt(QStringLiteral("127.0.0.1"), agentsRequest(m_relay->token.toUtf8()));
        QVERIFY(waitUntil([&] { return back->done(); }));
        QCOMPARE(statusAndBody(back->answer), QStringLiteral("HTTP/1.1 200 OK\n{\"agents\":[]}"));

        QStringList expected(10, QStringLiteral("auth.refused address=127.0.0.1 path=/v1/agents reason=wrong token"));
        expected += QStringLiteral("auth.blocked address=127.0.0.1 seconds=60");
        expected += QStringList(
            2, QStringLiteral("auth.refused address=127.0.0.1 path=/v1/agents reason=too many failed attempts"));
        QCOMPARE(linesAfterStart(), expected);
    }

    void addressesThatFailedShareOnePace()
    {
        QVERIFY(m_relay->start());
        // A hundred addresses with three guesses each: each address's first is judged at
        // once, the other two hundred one after the other, no closer than 10 ms.
        constexpr int kAddresses = 100;
        const qint64 sent = m_clock.elapsed();
        Attempts guesses;
        for (int round = 0; round < 3; ++round) {
            for (int a = 1; a <= kAddresses; ++a) {
                guesses.push_back(attempt(QStringLiteral("127.0.1.%1").arg(a),
                                          agentsRequest("guess-" + QByteArray::number(round * 1000 + a))));
            }
        }
        // Once they are being paced, a user at another address is served at once, long
        // before they are all answered.
        QVERIFY(waitUntil([&] { return answered(guesses) > kAddresses + 10; }));
        const auto user = attempt(QStringLiteral("127.0.2.1"), agentsRequest(m_relay->token.toUtf8()));
        QVERIFY(waitUntil([&] { return user->done(); }));
        QCOMPARE(statusAndBody(user->answer), QStringLiteral("HTTP/1.1 200 OK\n{\"agents\":[]}"));
        QVERIFY2(answered(guesses) <= 3 * kAddresses - 100, qPrintable(QString::number(answered(guesses))));

        QVERIFY(allDone(guesses));
        for (const auto& guess : guesses)
            QCOMPARE(statusAndBody(guess->answer), kUnauthorized);
        QVERIFY(keptThePace(byAnswerTime(guesses), sent,
                            [](int n) { return n < kAddresses ? 0 : kSpacingMs + (n - kAddresses) * kSharedSlotMs; }));
        const QStringList lines = linesAfterStart();
        QCOMPARE(lines.size(), 3 * kAddresses);
        for (int a = 1; a <= kAddresses; ++a) {
            QCOMPARE(lines.count(
                         QStringLiteral("auth.refused address=127.0.1.%1 path=/v1/agents reason=wrong token").arg(a)),
                     3);
        }
    }

    void readsWhatAWaitingRequestSentOnceItsTurnComes()
    {
        QVERIFY(m_relay->start());
        Attempts guesses;
        for (int i = 0; i < 3; ++i)
            guesses.push_back(attempt(QStringLiteral("127.0.0.1"), agentsRequest("guess-" + QByteArray::number(i))));
        QVERIFY(waitUntil([&] { return answered(guesses) >= 1; }));
        // Behind the two guesses left: an approval with its body, and a WebSocket whose
        // first message follows its handshake at once. Neither is read while it waits.
        const QByteArray body = "{\"taskId\":\"t\",\"toolName\":\"Bash\"}";
        const auto approval = attempt(QStringLiteral("127.0.0.1"),
                                      "POST /v1/approvals HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " +
                                          m_relay->token.toUtf8() +
                                          "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
        const auto client = attempt(QStringLiteral("127.0.0.1"),
                                    ws::upgradeRequest("/v1/ws/client", QByteArray("Authorization: Bearer " +
                                                                                   m_relay->token.toUtf8() + "\r\n")) +
                                        ws::maskedFrame(ws::Text, "{\"type\":\"nonsense\",\"requestId\":\"r1\"}"));
        QVERIFY(allDone(guesses));
        QVERIFY(waitUntil([&] { return approval->done() && client->answer.contains("UNKNOWN_TYPE"); }));
        QCOMPARE(statusAndBody(approval->answer),
                 QStringLiteral("HTTP/1.1 404 Not Found\n{\"error\":\"unknown task: t\"}"));
        QVERIFY(client->upgraded());
        QVERIFY2(client->answer.contains("{\"code\":\"UNKNOWN_TYPE\",\"message\":\"unknown message type: nonsense\","
                                         "\"requestId\":\"r1\",\"type\":\"error\"}"),
                 client->answer.constData());
        // They were judged in their turn, after the guesses before them.
        for (const auto& guess : guesses) {
            QCOMPARE(statusAndBody(guess->answer), kUnauthorized);
            QVERIFY(approval->answeredAt >= guess->answeredAt);
            QVERIFY(client->answeredAt >= guess->answeredAt);
        }
    }

    void answersRequestsThatWaitedTooLongWithoutJudgingThem()
    {
        QVERIFY(m_relay->start());
        // Fifty guesses at once: in 10 s about 41 of them can be judged; the others are
        // let go unjudged, with a 429 of their own.
        const qint64 sent = m_clock.elapsed();
        Attempts guesses;
        for (int i = 0; i < 50; ++i)
            guesses.push_back(attempt(QStringLiteral("127.0.0.3"), agentsRequest("guess-" + QByteArray::number(i))));
        QVERIFY(allDone(guesses, 20000));
        std::vector<const Attempt*> judged;
        int unjudged = 0;
        for (const Attempt* guess : byAnswerTime(guesses)) {
            const QString answer = statusAndBody(guess->answer);
            if (answer == kUnauthorized) {
                judged.push_back(guess);
                continue;
            }
            QCOMPARE(answer, kTooMany);
            const std::optional<QByteArray> retry = responseHeader(guess->answer, "retry-after");
            QVERIFY(retry == "60" || retry == "1");
            if (retry == "60")
                judged.push_back(guess);
            else
                ++unjudged;
        }
        QVERIFY(keptThePace(judged, sent, [](int n) { return n * kSpacingMs; }));
        QVERIFY2(judged.size() >= 10 && judged.size() <= 42, qPrintable(QString::number(judged.size())));
        QCOMPARE(int(judged.size()) + unjudged, 50);
        const QStringList lines = linesAfterStart();
        QCOMPARE(lines.count(QStringLiteral("auth.refused address=127.0.0.3 path=/v1/agents reason=wrong token")), 10);
        QCOMPARE(lines.count(QStringLiteral("auth.blocked address=127.0.0.3 seconds=60")), 1);
        QCOMPARE(lines.count(
                     QStringLiteral("auth.refused address=127.0.0.3 path=/v1/agents reason=too many failed attempts")),
                 int(judged.size()) - 10);
        QCOMPARE(
            lines.count(QStringLiteral("auth.refused address=127.0.0.3 path=/v1/agents reason=no turn within 10 s")),
            unjudged);
        QCOMPARE(lines.size(), 51);
    }

    void countsAnIpv6NetworkAsOneAddress()
    {
        // Through a trusted proxy, which names clients by any address it likes.
        QVERIFY(m_relay->start(environment({QStringLiteral("BRINMOOR_TRUSTED_PROXIES=127.0.0.2")})));
        const auto from = [&](const QByteArray& client, const QByteArray& token) {
            const auto guess =
                attempt(QStringLiteral("127.0.0.2"), agentsRequest(token, "X-Forwarded-For: " + client + "\r\n"));
            waitUntil([&] { return guess->done(); });
            return statusAndBody(guess->answer);
        };
        for (int i = 0; i < 10; ++i)
            QCOMPARE(from("2001:db8:1:2::" + QByteArray::number(i + 1), "guess"), kUnauthorized);
        // Another address of that /64 is blocked with them; one of the next /64 is not.
        QCOMPARE(from("2001:db8:1:2:ffff::1", "guess"), kTooMany);
        QCOMPARE(from("2001:db8:1:3::1", "guess"), kUnauthorized);
        QCOMPARE(from("2001:db8:1:2::99", m_relay->token.toUtf8()), QStringLiteral("HTTP/1.1 200 OK\n{\"agents\":[]}"));
        QStringList expected;
        for (int i = 0; i < 10; ++i)
            expected +=
                QStringLiteral("auth.refused address=2001:db8:1:2::%1 path=/v1/agents reason=wrong token").arg(i + 1);
        expected += QStringLiteral("auth.blocked address=2001:db8:1:2::10 seconds=60");
        expected +=
            QStringLiteral("auth.refused address=2001:db8:1:2:ffff::1 path=/v1/agents reason=too many failed attempts");
        expected += QStringLiteral("auth.refused address=2001:db8:1:3::1 path=/v1/agents reason=wrong token");
        QCOMPARE(linesAfterStart(), expected);
    }

    void aWaveOfClientsFromOneAddressAllGetThrough()
    {
        QVERIFY(m_relay->start());
        const QByteArray upgrade = ws::upgradeRequest(
            "/v1/ws/client", QByteArray("Authorization: Bearer " + m_relay->token.toUtf8() + "\r\n"));
        // 500 phones behind one NAT come back at the same moment.
        Attempts first;
        for (int i = 0; i < 500; ++i)
            first.push_back(attempt(QStringLiteral("127.0.0.1"), upgrade));
        QVERIFY(allDone(first, 30000));
        for (int i = 0; i < 500; ++i)
            QVERIFY2(
                first[i]->upgraded(),
                qPrintable(
                    QStringLiteral("connection %1: %2").arg(i + 1).arg(QString::fromUtf8(first[i]->answer.left(80)))));
        // One of them had an old token: the address failed just now. The next wave waits
        // for that address's turn, and then a right token costs no turn: were each judged
        // a quarter of a second after the one before, most would wait past 10 s.
        const auto stale = attempt(QStringLiteral("127.0.0.1"), agentsRequest("an-old-token-0123456789abcdef"));
        QVERIFY(waitUntil([&] { return stale->done(); }));
        QCOMPARE(statusAndBody(stale->answer), kUnauthorized);
        Attempts second;
        for (int i = 0; i < 500; ++i)
            second.push_back(attempt(QStringLiteral("127.0.0.1"), upgrade));
        QVERIFY(allDone(second, 30000));
        for (int i = 0; i < 500; ++i)
            QVERIFY2(
                second[i]->upgraded(),
                qPrintable(
                    QStringLiteral("connection %1: %2").arg(i + 1).arg(QString::fromUtf8(second[i]->answer.left(80)))));
        QVERIFY(waitUntil([&] { return linesAfterStart().size() >= 1001; }));
        QStringList expected(500, QStringLiteral("client.connected address=127.0.0.1"));
        expected += QStringLiteral("auth.refused address=127.0.0.1 path=/v1/agents reason=wrong token");
        expected += QStringList(500, QStringLiteral("client.connected address=127.0.0.1"));
        QCOMPARE(linesAfterStart(), expected);
    }

    void answersOnlyToTheNamesItServes()
    {
        QVERIFY(m_relay->start(environment({QStringLiteral("BRINMOOR_ALLOWED_HOSTS=MyMac.LAN, 10.9.8.7,[fd00::77]"),
                                            QStringLiteral("BRINMOOR_PUBLIC_URL=https://mymac.example.net:8443"),
                                            QStringLiteral("BRINMOOR_TRUSTED_PROXIES=127.0.0.2")})));
        const QByteArray port = QByteArray::number(m_relay->port);
        // This machine's other addresses (those of the test's network), as a phone on the
        // LAN names them.
        QList<QByteArray> own;
        for (const QHostAddress& address : QNetworkInterface::allAddresses()) {
            if (address.isLoopback() || !address.scopeId().isEmpty() || address.isLinkLocal())
                continue;
            own += address.protocol() == QAbstractSocket::IPv6Protocol ? "[" + address.toString().toLatin1() + "]"
                                                                       : address.toString().toLatin1();
        }
        if (own.isEmpty())
            qWarning("no address but loopback: only the listed ones are tried");
        QList<QByteArray> served{"127.0.0.1",
                                 "127.0.0.1:" + port,
                                 "127.8.9.10:1",
                                 "[::1]:" + port,
                                 "[0:0:0:0:0:0:0:1]",
                                 "localhost",
                                 "LOCALHOST:" + port,
                                 "localhost.",
                                 "mymac.lan",
                                 "mymac.LAN.:8080",
                                 "10.9.8.7:80",
                                 "[fd00::77]:8080",
                                 "mymac.example.net:8443",
                                 QHostInfo::localHostName().toLatin1() + ":" + port};
        for (const QByteArray& address : std::as_const(own))
            served += {address, address + ":" + port};
        const QList<QByteArray> refused{"evil.example",
                                        "evil.example:" + port,
                                        "mymac.lan.evil.example",
                                        "127.0.0.1.nip.io:" + port,
                                        "localhost.evil.example",
                                        "10.9.8.6",
                                        "192.0.2.250:" + port,
                                        "[fd00::78]",
                                        "::1",
                                        "127.1",
                                        "",
                                        "a/b",
                                        "localhost:",
                                        "localhost:x",
                                        "mymac.lan:99999",
                                        "[::1",
                                        "-mymac.lan"};
        const QByteArray upgradeHead = ws::upgradeRequest(
            "/v1/ws/client", QByteArray("Authorization: Bearer " + m_relay->token.toUtf8() + "\r\n"));
        const auto withHost = [](QByteArray request, const QByteArray& host) {
            return request.replace("Host: 127.0.0.1\r\n", QByteArray("Host: " + host + "\r\n"));
        };
        const auto exchange = [&](const QByteArray& request) {
            const auto one = attempt(QStringLiteral("127.0.0.1"), request);
            waitUntil([&] { return one->done(); });
            return one->answer;
        };
        for (const QByteArray& host : std::as_const(served)) {
            QCOMPARE(statusAndBody(exchange(withHost("GET /v1/health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", host))),
                     QStringLiteral("HTTP/1.1 200 OK\n{\"ok\":true}"));
            QVERIFY2(exchange(withHost(upgradeHead, host)).startsWith("HTTP/1.1 101 Switching Protocols\r\n"),
                     host.constData());
        }
        for (const QByteArray& host : refused) {
            QCOMPARE(statusAndBody(exchange(withHost("GET /v1/health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", host))),
                     kMisdirected);
            QCOMPARE(statusAndBody(exchange(withHost(upgradeHead, host))), kMisdirected);
        }
        // The page, two Host headers, and a request without one (no browser sends that).
        QCOMPARE(statusAndBody(exchange("GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n")), kMisdirected);
        QCOMPARE(statusAndBody(exchange("GET /v1/health HTTP/1.1\r\nHost: 127.0.0.1\r\nHost: evil.example\r\n\r\n")),
                 kMisdirected);
        QCOMPARE(statusAndBody(exchange("GET /v1/health HTTP/1.0\r\n\r\n")),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"ok\":true}"));
        // Through the proxy, the Host it passes on is the one judged.
        const auto proxied = [&](const QByteArray& host) {
            const auto one =
                attempt(QStringLiteral("127.0.0.2"),
                        "GET /v1/agents HTTP/1.1\r\nHost: " + host + "\r\nX-Forwarded-For: 203.0.113.9\r\n" +
                            "Authorization: Bearer " + m_relay->token.toUtf8() + "\r\n\r\n");
            waitUntil([&] { return one->done(); });
            return statusAndBody(one->answer);
        };
        QCOMPARE(proxied("mymac.example.net:8443"), QStringLiteral("HTTP/1.1 200 OK\n{\"agents\":[]}"));
        QCOMPARE(proxied("evil.example"), kMisdirected);

        QVERIFY(
            m_relay->waitForLine(QStringLiteral("host.refused address=203.0.113.9 path=/v1/agents host=evil.example")));
        QStringList expected;
        for (const QByteArray& host : refused) {
            for (const char* path : {"/v1/health", "/v1/ws/client"})
                expected += QStringLiteral("host.refused address=127.0.0.1 path=%1 host=%2")
                                .arg(QLatin1String(path), QString::fromLatin1(host));
        }
        expected += {QStringLiteral("host.refused address=127.0.0.1 path=/ host=evil.example"),
                     QStringLiteral("host.refused address=127.0.0.1 path=/v1/health host=127.0.0.1, evil.example"),
                     QStringLiteral("host.refused address=203.0.113.9 path=/v1/agents host=evil.example")};
        QCOMPARE(linesAfterStart().filter(QStringLiteral("host.refused")), expected);
        // A refused name is no failed attempt.
        QVERIFY(linesAfterStart().filter(QStringLiteral("auth.")).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TstRelayGuessing)
#include "tst_relay_guessing.moc"
