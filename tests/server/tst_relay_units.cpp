#include "auth_guard.h"
#include "base/utf8_stream_decoder.h"
#include "http_request.h"
#include "origin_policy.h"
#include "trusted_proxies.h"
#include "websocket_client.h"
#include "websocket_frames.h"

#include <QTest>

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
        AuthGuard guard("tok");
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
        AuthGuard guard("tok");
        const QString address = QStringLiteral("192.0.2.9");
        for (int i = 0; i < 9; ++i)
            QVERIFY(!guard.recordFailure(address, i));
        // The first nine are more than a minute old by now.
        QVERIFY(!guard.recordFailure(address, 60'500));
        QVERIFY(!guard.isBlocked(address, 60'500));
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
