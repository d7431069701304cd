#include "auth_guard.h"
#include "base/utf8_stream_decoder.h"
#include "http_request.h"
#include "origin_policy.h"
#include "served_hosts.h"
#include "trusted_proxies.h"
#include "waiting_turns.h"
#include "websocket_client.h"
#include "websocket_frames.h"

#include <QTest>

#include <array>

using namespace brinmoor::relay;
using brinmoor::isValidUtf8;

class TstRelayUnits : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void acceptKeyIsTheOneOfTheWebSocketStandard()
    {
        QCOMPARE(ws::acceptKey("dGhlIHNhbXBsZSBub25jZQ=="), QByteArray("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="));
    }

    void serverFramesUseTheShortestLength()
    {
        QCOMPARE(ws::frame(ws::Text, QByteArray(125, 'a')).size(), 2 + 125);
        QCOMPARE(ws::frame(ws::Text, QByteArray(126, 'a')).left(4), QByteArray("\x81\x7e\x00\x7e", 4));
        QCOMPARE(ws::frame(ws::Text, QByteArray(65535, 'a')).size(), 4 + 65535);
        QCOMPARE(ws::frame(ws::Text, QByteArray(65536, 'a')).left(10),
                 QByteArray("\x81\x7f\x00\x00\x00\x00\x00\x01\x00\x00", 10));
        QCOMPARE(ws::closeFrame(1008, "slow"), QByteArray("\x88\x06\x03\xf0slow", 8));
    }

    void readsMaskedMessagesArrivingInPieces()
    {
        ws::FrameReader reader(1024, true);
        const QByteArray whole = ws::maskedFrame(ws::Text, "{\"type\":\"x\"}") + ws::maskedFrame(ws::Binary, "bin");
        QByteArray buffer;
        qsizetype offset = 0;
        ws::Message message;
        QStringList seen;
        for (char c : whole) {
            buffer.append(c);
            while (true) {
                const auto result = reader.next(buffer, offset, message);
                QVERIFY(result != ws::FrameReader::Result::Failed);
                if (result == ws::FrameReader::Result::NeedMore)
                    break;
                seen.append(QString::number(message.opcode) + QLatin1Char(' ') +
                            QString::fromUtf8(message.payload.toByteArray()));
            }
        }
        QCOMPARE(seen, (QStringList{QStringLiteral("1 {\"type\":\"x\"}"), QStringLiteral("2 bin")}));
        QCOMPARE(offset, whole.size());
    }

    void joinsFragmentsAndLetsControlFramesThrough()
    {
        ws::FrameReader reader(1024, true);
        QByteArray buffer = ws::maskedFrame(ws::Text, "hel", false) + ws::maskedFrame(ws::Ping, "p") +
                            ws::maskedFrame(ws::Continuation, "lo", true);
        qsizetype offset = 0;
        ws::Message message;
        QCOMPARE(reader.next(buffer, offset, message), ws::FrameReader::Result::Message);
        QCOMPARE(message.opcode, ws::Ping);
        QCOMPARE(reader.next(buffer, offset, message), ws::FrameReader::Result::Message);
        QCOMPARE(message.opcode, ws::Text);
        QCOMPARE(message.payload.toByteArray(), QByteArray("hello"));
    }

    void refusesWhatTheProtocolForbids_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("code");
        QTest::addColumn<QByteArray>("reason");
        QByteArray unmasked("\x81\x02hi", 4);
        QTest::newRow("unmasked") << unmasked << 1002 << QByteArray("frames from a client must be masked");
        QTest::newRow("reserved bits") << QByteArray("\xc1\x80", 2) << 1002 << QByteArray("reserved bits set");
        QTest::newRow("unknown opcode") << ws::maskedFrame(ws::Opcode(0x3), "x") << 1002
                                        << QByteArray("unknown opcode");
        QTest::newRow("long ping") << ws::maskedFrame(ws::Ping, QByteArray(126, 'p')) << 1002
                                   << QByteArray("invalid control frame");
        QTest::newRow("stray continuation")
            << ws::maskedFrame(ws::Continuation, "x") << 1002 << QByteArray("continuation without a message");
        QTest::newRow("message inside a message")
            << ws::maskedFrame(ws::Text, "a", false) + ws::maskedFrame(ws::Text, "b") << 1002
            << QByteArray("new message inside a fragmented one");
        QTest::newRow("bad UTF-8") << ws::maskedFrame(ws::Text, "\xc0\xaf") << 1007
                                   << QByteArray("invalid UTF-8 in a text message");
        // Only the header of a too-big frame has arrived: it is refused without waiting.
        QTest::newRow("too big") << ws::maskedFrame(ws::Binary, QByteArray(2000, 'x')).left(8) << 1009
                                 << QByteArray("message too big");
        QTest::newRow("too big in pieces") << ws::maskedFrame(ws::Text, QByteArray(600, 'x'), false) +
                                                  ws::maskedFrame(ws::Continuation, QByteArray(600, 'x'))
                                           << 1009 << QByteArray("message too big");
    }

    void refusesWhatTheProtocolForbids()
    {
        QFETCH(QByteArray, bytes);
        ws::FrameReader reader(1024, true);
        qsizetype offset = 0;
        ws::Message message;
        ws::FrameReader::Result result;
        do {
            result = reader.next(bytes, offset, message);
        } while (result == ws::FrameReader::Result::Message);
        QCOMPARE(result, ws::FrameReader::Result::Failed);
        QTEST(int(reader.failureCode()), "code");
        QTEST(reader.failureReason(), "reason");
    }

    void validatesUtf8()
    {
        QVERIFY(isValidUtf8("plain ascii text that is longer than eight bytes"));
        QVERIFY(isValidUtf8("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"));
        QVERIFY(!isValidUtf8("\xe2\x82"));         // cut short
        QVERIFY(!isValidUtf8("\xed\xa0\x80"));     // a surrogate
        QVERIFY(!isValidUtf8("\xe0\x80\xaf"));     // overlong
        QVERIFY(!isValidUtf8("\xf4\x90\x80\x80")); // beyond U+10FFFF
        QVERIFY(!isValidUtf8("abcdefgh\xff"));
    }

    void parsesRequestHeads()
    {
        HttpRequest request;
        const QByteArray head = "GET /v1/ws/agent?agentId=my%20mac&x=1 HTTP/1.1\r\nHost: h\r\n"
                                "Connection: keep-alive, Upgrade\r\nUpgrade: WebSocket\r\n\r\nrest";
        QCOMPARE(parseRequestHead(head, 16384, request), HeadStatus::Complete);
        QCOMPARE(request.method, QByteArray("GET"));
        QCOMPARE(request.path, QByteArray("/v1/ws/agent"));
        QCOMPARE(request.queryItem("agentId"), QByteArray("my mac"));
        QCOMPARE(request.queryItem("missing"), QByteArray());
        QVERIFY(request.headerHasToken("connection", "upgrade"));
        QVERIFY(request.headerHasToken("upgrade", "websocket"));
        QCOMPARE(request.header("host"), QByteArray("h"));
        QCOMPARE(request.headSize, head.size() - 4);

        QCOMPARE(parseRequestHead("GET / HTTP/1.1\r\nHost: h\r\n", 16384, request), HeadStatus::Incomplete);
        QCOMPARE(parseRequestHead(QByteArray("GET / HTTP/1.1\r\n" + QByteArray(100, 'x')), 64, request),
                 HeadStatus::TooLarge);
        QCOMPARE(parseRequestHead("GET /\r\n\r\n", 16384, request), HeadStatus::Malformed);
        QCOMPARE(parseRequestHead("GET / HTTP/1.1\r\nno colon\r\n\r\n", 16384, request), HeadStatus::Malformed);
        QCOMPARE(parseRequestHead("GET nopath HTTP/1.1\r\n\r\n", 16384, request), HeadStatus::Malformed);
    }

    void formatsResponses()
    {
        QCOMPARE(jsonResponse(200, "{\"ok\":true}"),
                 QByteArray("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 11\r\n"
                            "Cache-Control: no-store\r\nConnection: close\r\n\r\n{\"ok\":true}"));
    }

    void comparesTokensWholly()
    {
        QVERIFY(constantTimeEquals("secret", "secret"));
        QVERIFY(!constantTimeEquals("secreT", "secret"));
        QVERIFY(!constantTimeEquals("secret1", "secret"));
        QVERIFY(!constantTimeEquals("secre", "secret"));
        QVERIFY(!constantTimeEquals("", "secret"));
        QVERIFY(!constantTimeEquals("", ""));
    }

    void blocksAnAddressAfterTenFailuresInAMinute()
    {
        AuthGuard guard("relay-token-7f3a9c1e5b2d4086");
        const QString address = QStringLiteral("192.0.2.7");
        for (int i = 0; i < 9; ++i)
            QVERIFY(!guard.recordFailure(address, 1000 + i));
        QVERIFY(!guard.isBlocked(address, 2000));
        QVERIFY(guard.recordFailure(address, 2000));
        QVERIFY(guard.isBlocked(address, 2000));
        QVERIFY(!guard.isBlocked(QStringLiteral("192.0.2.8"), 2000));
        QVERIFY(guard.isBlocked(address, 61'999));
        QVERIFY(!guard.isBlocked(address, 62'000));
    }

    void forgetsFailuresOlderThanAMinute()
    {
        AuthGuard guard("relay-token-7f3a9c1e5b2d4086");
        const QString address = QStringLiteral("192.0.2.9");
        for (int i = 0; i < 9; ++i)
            QVERIFY(!guard.recordFailure(address, i));
        // The first nine are more than a minute old by now.
        QVERIFY(!guard.recordFailure(address, 60'500));
        QVERIFY(!guard.isBlocked(address, 60'500));
    }

    void judgesAnAddressThatFailedAtItsPace()
    {
        AuthGuard guard("relay-token-7f3a9c1e5b2d4086");
        const QString address = QStringLiteral("192.0.2.7");
        // Never failed: judged at once, and so is an address that failed long ago.
        QCOMPARE(guard.turnOf(address, 1000), 1000);
        QVERIFY(guard.mayJudge(address, 1000));
        QVERIFY(!guard.recordFailure(address, 1000));
        QCOMPARE(guard.turnOf(address, 1000), 1250);
        QVERIFY(!guard.mayJudge(address, 1249));
        QVERIFY(guard.mayJudge(address, 1250));
        QCOMPARE(guard.recentFailures(address, 1250), 1);
        // Other addresses are not held to it.
        QCOMPARE(guard.turnOf(QStringLiteral("192.0.2.8"), 1001), 1001);
        // A minute after its last failure it is an address like any other.
        QCOMPARE(guard.recentFailures(address, 60'999), 1);
        QCOMPARE(guard.recentFailures(address, 61'000), 0);
        QVERIFY(!guard.recordFailure(address, 61'000));
        QCOMPARE(guard.turnOf(address, 61'000), 61'250);
    }

    void addressesThatFailedRecentlyFailInTurnsTogether()
    {
        GuessLimits limits;
        limits.failuresPerSecond = 4; // one each 250 ms
        limits.spacingMs = 100;
        AuthGuard guard("relay-token-7f3a9c1e5b2d4086", limits);
        const QString a = QStringLiteral("192.0.2.1");
        const QString b = QStringLiteral("192.0.2.2");
        // First failures cost no shared turn: every address has one at once.
        guard.recordFailure(a, 0);
        guard.recordFailure(b, 0);
        QCOMPARE(guard.turnOf(a, 0), 100);
        QCOMPARE(guard.turnOf(b, 0), 100);
        // A's second failure takes the shared turn: B waits for the next one.
        guard.recordFailure(a, 100);
        QCOMPARE(guard.turnOf(a, 100), 350);
        QCOMPARE(guard.turnOf(b, 100), 350);
        guard.recordFailure(b, 350);
        QCOMPARE(guard.turnOf(b, 350), 600);
        QCOMPARE(guard.turnOf(a, 350), 600);
        // A new address is not held to them.
        QCOMPARE(guard.turnOf(QStringLiteral("192.0.2.3"), 350), 350);
        // Blocked addresses come last among those whose turn has come.
        for (int i = 0; i < 8; ++i)
            guard.recordFailure(a, 1000 + i * 1000);
        QVERIFY(guard.isBlocked(a, 8000));
        QCOMPARE(guard.recentFailures(a, 8000), 10);
        QCOMPARE(guard.recentFailures(b, 8000), 2);
    }

    void countsAnIpv6NetworkAsOneAddress_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("key");
        QTest::newRow("IPv4") << QStringLiteral("192.0.2.7") << QStringLiteral("192.0.2.7");
        QTest::newRow("IPv6") << QStringLiteral("2001:db8:1:2:3:4:5:6") << QStringLiteral("2001:db8:1:2::/64");
        QTest::newRow("IPv6 short") << QStringLiteral("2001:db8::1") << QStringLiteral("2001:db8::/64");
        QTest::newRow("loopback") << QStringLiteral("::1") << QStringLiteral("::/64");
    }

    void countsAnIpv6NetworkAsOneAddress()
    {
        QFETCH(QString, address);
        QTEST(AuthGuard::keyOf(address), "key");
    }

    void remembersABoundedNumberOfAddresses()
    {
        GuessLimits limits;
        limits.maxAddresses = 4;
        AuthGuard guard("relay-token-7f3a9c1e5b2d4086", limits);
        for (int i = 1; i <= 6; ++i)
            guard.recordFailure(QStringLiteral("192.0.2.%1").arg(i), i);
        QCOMPARE(guard.rememberedAddresses(), 4);
        // The two that failed longest ago were forgotten: their next guess is judged at once.
        QCOMPARE(guard.turnOf(QStringLiteral("192.0.2.1"), 10), 10);
        QCOMPARE(guard.turnOf(QStringLiteral("192.0.2.2"), 10), 10);
        QCOMPARE(guard.turnOf(QStringLiteral("192.0.2.3"), 10), 253);
        // Addresses whose failures no longer count go as new ones come.
        guard.recordFailure(QStringLiteral("192.0.2.9"), 70'000);
        QCOMPARE(guard.rememberedAddresses(), 3);
    }

    void takesTurnsFewestFailuresFirst()
    {
        GuessLimits limits;
        limits.failuresPerSecond = 1000;
        AuthGuard guard("relay-token-7f3a9c1e5b2d4086", limits);
        const QString guesser = QStringLiteral("192.0.2.1");
        const QString user = QStringLiteral("192.0.2.2");
        for (int i = 0; i < 5; ++i)
            guard.recordFailure(guesser, i * 300);
        guard.recordFailure(user, 1200);
        // Fake connections: only their identity matters here.
        std::array<char, 4> connections{};
        auto* first = reinterpret_cast<RelayConnection*>(&connections[0]);
        auto* second = reinterpret_cast<RelayConnection*>(&connections[1]);
        auto* third = reinterpret_cast<RelayConnection*>(&connections[2]);
        HttpRequest request;
        request.path = "/v1/agents";
        WaitingTurns turns;
        turns.add(guesser, first, request);
        turns.add(guesser, second, request);
        turns.add(user, third, request);
        QCOMPARE(turns.size(), 3);
        QVERIFY(turns.hasLine(guesser));
        // Nobody's turn has come yet; the next is the user's.
        QVERIFY(!turns.takeNext(guard, 1300));
        QCOMPARE(turns.nextTurn(guard, 1300), 1450);
        // Both turns have come: the user, who failed once, before the one who failed five
        // times and waited longer.
        QCOMPARE(turns.takeNext(guard, 1500)->connection, third);
        QCOMPARE(turns.takeNext(guard, 1500)->connection, first);
        // A request that went away is forgotten.
        QCOMPARE(turns.remove(second)->request.path, QByteArray("/v1/agents"));
        QVERIFY(!turns.remove(second));
        QVERIFY(turns.isEmpty());
        QCOMPARE(turns.nextTurn(guard, 1500), -1);
    }

    void servesOnlyItsOwnHostNames_data()
    {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<bool>("served");
        QTest::newRow("loopback") << QByteArray("127.0.0.1") << true;
        QTest::newRow("loopback with port") << QByteArray("127.0.0.1:8080") << true;
        QTest::newRow("other loopback") << QByteArray("127.1.2.3") << true;
        QTest::newRow("IPv6 loopback") << QByteArray("[::1]:8080") << true;
        QTest::newRow("address reached") << QByteArray("192.0.2.44:8080") << true;
        QTest::newRow("listed address") << QByteArray("10.9.8.7") << true;
        QTest::newRow("listed IPv6") << QByteArray("[2001:DB8::7]") << true;
        QTest::newRow("localhost") << QByteArray("LocalHost.:443") << true;
        QTest::newRow("listed name") << QByteArray("MyMac.lan") << true;
        QTest::newRow("blanks around") << QByteArray(" mymac.lan ") << true;
        QTest::newRow("other name") << QByteArray("evil.example") << false;
        QTest::newRow("listed name inside another") << QByteArray("mymac.lan.evil.example") << false;
        QTest::newRow("other address") << QByteArray("10.9.8.6") << false;
        QTest::newRow("short IPv4") << QByteArray("127.1") << false;
        QTest::newRow("IPv6 without brackets") << QByteArray("::1") << false;
        QTest::newRow("IPv4 in brackets") << QByteArray("[127.0.0.1]") << false;
        QTest::newRow("empty") << QByteArray("") << false;
        QTest::newRow("empty port") << QByteArray("localhost:") << false;
        QTest::newRow("port too big") << QByteArray("localhost:65536") << false;
        QTest::newRow("signed port") << QByteArray("localhost:+80") << false;
        QTest::newRow("user") << QByteArray("me@localhost") << false;
        QTest::newRow("path") << QByteArray("localhost/x") << false;
        QTest::newRow("empty label") << QByteArray("mymac..lan") << false;
        QTest::newRow("bracket left open") << QByteArray("[::1") << false;
        QTest::newRow("after the bracket") << QByteArray("[::1]x") << false;
    }

    void servesOnlyItsOwnHostNames()
    {
        QFETCH(QByteArray, host);
        ServedHosts hosts({QStringLiteral("mymac.lan"), QStringLiteral("10.9.8.7"), QStringLiteral("2001:db8::7")});
        QTEST(hosts.serves(host, QHostAddress(QStringLiteral("192.0.2.44")), 0), "served");
    }

    void takesHostNamesAndAddressesAsAllowedHosts_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QString>("normalized"); // empty: refused
        QTest::newRow("name") << QStringLiteral(" MyMac.Example.NET. ") << QStringLiteral("mymac.example.net");
        QTest::newRow("single label") << QStringLiteral("mymac") << QStringLiteral("mymac");
        QTest::newRow("IPv4") << QStringLiteral("192.168.1.20") << QStringLiteral("192.168.1.20");
        QTest::newRow("IPv6") << QStringLiteral("2001:DB8:0::1") << QStringLiteral("2001:db8::1");
        QTest::newRow("IPv6 in brackets") << QStringLiteral("[fd00::2]") << QStringLiteral("fd00::2");
        QTest::newRow("port") << QStringLiteral("mymac.lan:8443") << QString();
        QTest::newRow("scheme") << QStringLiteral("https://mymac.lan") << QString();
        QTest::newRow("wildcard") << QStringLiteral("*.mymac.lan") << QString();
        QTest::newRow("space inside") << QStringLiteral("my mac") << QString();
        QTest::newRow("hyphen first") << QStringLiteral("-mymac") << QString();
        QTest::newRow("long label") << QString(64, QLatin1Char('a')) << QString();
        QTest::newRow("short IPv4") << QStringLiteral("10.1") << QStringLiteral("10.1");
    }

    void takesHostNamesAndAddressesAsAllowedHosts()
    {
        QFETCH(QString, entry);
        QFETCH(QString, normalized);
        QCOMPARE(ServedHosts::normalizedEntry(entry).value_or(QString()), normalized);
    }

    void originsAreComparedInOneSpelling_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("normalized"); // empty: not an origin
        QTest::newRow("default http port")
            << QStringLiteral("http://Example.COM") << QStringLiteral("http://example.com:80");
        QTest::newRow("default https port")
            << QStringLiteral("HTTPS://a.example:443") << QStringLiteral("https://a.example:443");
        QTest::newRow("port") << QStringLiteral("http://127.0.0.1:8080") << QStringLiteral("http://127.0.0.1:8080");
        QTest::newRow("IPv6") << QStringLiteral("http://[::1]:8080") << QStringLiteral("http://[::1]:8080");
        QTest::newRow("trailing slash") << QStringLiteral("https://a.example/")
                                        << QStringLiteral("https://a.example:443");
        QTest::newRow("path") << QStringLiteral("https://a.example/x") << QString();
        QTest::newRow("user") << QStringLiteral("https://me@a.example") << QString();
        QTest::newRow("query") << QStringLiteral("https://a.example?x") << QString();
        QTest::newRow("other scheme") << QStringLiteral("ftp://a.example") << QString();
        QTest::newRow("null") << QStringLiteral("null") << QString();
        QTest::newRow("no host") << QStringLiteral("http://") << QString();
    }

    void originsAreComparedInOneSpelling()
    {
        QFETCH(QString, text);
        QFETCH(QString, normalized);
        QCOMPARE(normalizedOrigin(text).value_or(QString()), normalized);
    }

    void theOwnOriginIsTheHostAskedOverTheConnectionsScheme()
    {
        const OriginPolicy policy({QStringLiteral("https://phone.example:443")});
        QVERIFY(policy.allows("http://127.0.0.1:8080", "127.0.0.1:8080", false));
        QVERIFY(policy.allows("http://localhost", "LOCALHOST:80", false));
        QVERIFY(policy.allows("https://phone.example", "127.0.0.1:8080", false));
        QVERIFY(!policy.allows("https://127.0.0.1:8080", "127.0.0.1:8080", false));
        QVERIFY(!policy.allows("http://127.0.0.1:8081", "127.0.0.1:8080", false));
        QVERIFY(!policy.allows("http://127.0.0.1:8080", "", false));
        QVERIFY(!policy.allows("http://127.0.0.1:8080", "127.0.0.1:8080/x", false));
        // Over TLS the relay's own origin is https.
        QVERIFY(policy.allows("https://mymac.example.net:8443", "mymac.example.net:8443", true));
        QVERIFY(policy.allows("https://mymac.example.net", "mymac.example.net", true));
        QVERIFY(!policy.allows("http://mymac.example.net:8443", "mymac.example.net:8443", true));
    }

    void trustedProxiesNameTheClient()
    {
        const std::optional<TrustedProxies> proxies =
            TrustedProxies::parse(QStringLiteral("10.0.0.1, 192.168.0.0/16,::1,fd00::/8"));
        QVERIFY(proxies);
        const auto client = [&](const char* peer, const QList<QByteArray>& forwardedFor) {
            return proxies->clientAddress(QHostAddress(QString::fromLatin1(peer)), forwardedFor);
        };
        // Only a trusted peer is believed, and only from the end of the header on.
        QCOMPARE(client("203.0.113.5", {"198.51.100.1"}), QStringLiteral("203.0.113.5"));
        QCOMPARE(client("10.0.0.1", {}), QStringLiteral("10.0.0.1"));
        QCOMPARE(client("10.0.0.1", {"198.51.100.1"}), QStringLiteral("198.51.100.1"));
        QCOMPARE(client("10.0.0.1", {"6.6.6.6, 198.51.100.1"}), QStringLiteral("198.51.100.1"));
        // Through two proxies, in one header or two.
        QCOMPARE(client("10.0.0.1", {"198.51.100.1, 192.168.4.4"}), QStringLiteral("198.51.100.1"));
        QCOMPARE(client("10.0.0.1", {"198.51.100.1", " 192.168.4.4 "}), QStringLiteral("198.51.100.1"));
        // What is no address ends the walk at the proxy that wrote it.
        QCOMPARE(client("10.0.0.1", {"unknown, 192.168.4.4"}), QStringLiteral("192.168.4.4"));
        QCOMPARE(client("10.0.0.1", {"198.51.100.1:4711"}), QStringLiteral("10.0.0.1"));
        QCOMPARE(client("::1", {"[2001:db8::7]"}), QStringLiteral("2001:db8::7"));
        QCOMPARE(client("::ffff:10.0.0.1", {"::ffff:198.51.100.1"}), QStringLiteral("198.51.100.1"));
        QCOMPARE(client("fd00::9", {"198.51.100.1"}), QStringLiteral("198.51.100.1"));

        QString bad;
        QCOMPARE(TrustedProxies::parse(QStringLiteral("10.0.0.1,proxy.lan"), &bad), std::nullopt);
        QCOMPARE(bad, QStringLiteral("proxy.lan"));
        QCOMPARE(TrustedProxies::parse(QStringLiteral("10.0.0.0/33"), &bad), std::nullopt);
        QCOMPARE(bad, QStringLiteral("10.0.0.0/33"));
        QVERIFY(TrustedProxies::parse(QString())->isEmpty());
    }

    void onlyCodesThatMayTravelAreSentBack()
    {
        // The first and last code of each range that may be sent.
        QList<int> bounds;
        bool inside = false;
        for (int code = 0; code <= 0xFFFF; ++code) {
            const bool sendable = ws::isSendableCloseCode(quint16(code));
            if (sendable != inside)
                bounds << (sendable ? code : code - 1);
            inside = sendable;
        }
        QCOMPARE(bounds, (QList<int>{1000, 1003, 1007, 1014, 3000, 4999}));
    }
};

QTEST_GUILESS_MAIN(TstRelayUnits)
#include "tst_relay_units.moc"
