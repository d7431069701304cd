// The browser client as brinmoor-server serves it: the built files, their content types,
// caching and security headers, brotli or gzip for browsers that take them, ETags and
// 304, and the /v1 endpoints exactly as before.
#include "static_files.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/test_support.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <brotli/decode.h>
#include <zlib.h>

using namespace brinmoor::test;

namespace {

struct Response {
    QByteArray statusLine;
    QList<QByteArray> headers; // "Name: value", in the order sent
    QByteArray body;
};

Response parse(const QByteArray& raw)
{
    Response response;
    const qsizetype end = raw.indexOf("\r\n\r\n");
    const QList<QByteArray> lines = raw.left(end).split('\n');
    response.statusLine = lines.value(0).trimmed();
    for (const QByteArray& line : lines.mid(1))
        response.headers.append(line.trimmed());
    response.body = end < 0 ? QByteArray() : raw.mid(end + 4);
    return response;
}

QByteArray distFile(const QString& name)
{
    return readFile(QStringLiteral(BRINMOOR_WEB_DIST "/") + name);
}

// The strong ETag the relay gives these bytes.
QByteArray etagOf(const QByteArray& bytes)
{
    return '"' + QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex().left(32) + '"';
}

QByteArray gunzip(const QByteArray& gzipped)
{
    z_stream stream{};
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK)
        return {};
    QByteArray out;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzipped.constData()));
    stream.avail_in = uInt(gzipped.size());
    int result = Z_OK;
    while (result == Z_OK) {
        char chunk[64 * 1024];
        stream.next_out = reinterpret_cast<Bytef*>(chunk);
        stream.avail_out = sizeof chunk;
        result = inflate(&stream, Z_NO_FLUSH);
        out.append(chunk, qsizetype(sizeof chunk - stream.avail_out));
    }
    inflateEnd(&stream);
    return result == Z_STREAM_END ? out : QByteArray("not gzip");
}

// Decodes brotli into at most `limit` bytes.
QByteArray unbrotli(const QByteArray& encoded, qsizetype limit)
{
    QByteArray out(limit, Qt::Uninitialized);
    size_t size = size_t(limit);
    if (BrotliDecoderDecompress(size_t(encoded.size()), reinterpret_cast<const uint8_t*>(encoded.constData()), &size,
                                reinterpret_cast<uint8_t*>(out.data())) != BROTLI_DECODER_RESULT_SUCCESS)
        return "not brotli";
    out.resize(qsizetype(size));
    return out;
}

QString csp(quint16 port)
{
    const QString origin = QStringLiteral("127.0.0.1:") + QString::number(port);
    return QStringLiteral(
               "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
               "style-src-attr 'unsafe-inline'; img-src 'self'; font-src 'self'; connect-src 'self' ws://%1 wss://%1; "
               "manifest-src 'self'; worker-src 'self'; base-uri 'none'; form-action 'none'; "
               "frame-ancestors 'none'")
        .arg(origin);
}

} // namespace

class TstStaticFiles : public QObject {
    Q_OBJECT

private:
    RelayProcess m_relay;

    Response get(const QByteArray& path, const QByteArray& extraHeaders = {}, const QByteArray& method = "GET")
    {
        return parse(httpExchange(m_relay.port, method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                                                    QByteArray::number(m_relay.port) + "\r\n" + extraHeaders + "\r\n"));
    }

    QString asset(const QString& extension)
    {
        const QStringList names = QDir(QStringLiteral(BRINMOOR_WEB_DIST "/assets"))
                                      .entryList({QStringLiteral("index-*.") + extension}, QDir::Files);
        return names.isEmpty() ? QString() : QStringLiteral("assets/") + names.first();
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_relay.start()); }

    void servesTheIndexWithoutAToken()
    {
        const Response index = get("/");
        QCOMPARE(index.statusLine, QByteArray("HTTP/1.1 200 OK"));
        const QByteArray html = distFile(QStringLiteral("index.html"));
        QVERIFY(html.contains("<title>Brinmoor</title>"));
        QCOMPARE(index.headers,
                 (QList<QByteArray>{"Content-Type: text/html; charset=utf-8",
                                    "Content-Length: " + QByteArray::number(html.size()), "Cache-Control: no-cache",
                                    "Vary: Accept-Encoding", "ETag: " + etagOf(html), csp(m_relay.port).toUtf8(),
                                    "X-Content-Type-Options: nosniff", "Referrer-Policy: no-referrer",
                                    "Connection: close"}));
        QCOMPARE(index.body, html);
    }

    void sendsHashedAssetsCompressedAndImmutable_data()
    {
        QTest::addColumn<QByteArray>("acceptEncoding");
        QTest::addColumn<QString>("form"); // the file's suffix for the form sent, "" for the file itself
        QTest::newRow("a browser's") << QByteArray("gzip, deflate, br, zstd") << QStringLiteral(".br");
        QTest::newRow("brotli alone") << QByteArray("br") << QStringLiteral(".br");
        QTest::newRow("names in capitals") << QByteArray("GZIP, BR") << QStringLiteral(".br");
        QTest::newRow("gzip alone") << QByteArray("gzip") << QStringLiteral(".gz");
        QTest::newRow("brotli refused") << QByteArray("br;q=0, gzip;q=0.5") << QStringLiteral(".gz");
        QTest::newRow("brotli refused as 0.000") << QByteArray("gzip, br; q=0.000") << QStringLiteral(".gz");
        QTest::newRow("anything") << QByteArray("*") << QStringLiteral(".br");
        QTest::newRow("anything but brotli") << QByteArray("br;q=0, *") << QStringLiteral(".gz");
        QTest::newRow("nothing but the file") << QByteArray("*;q=0, identity") << QString();
        QTest::newRow("both refused") << QByteArray("gzip;q=0, br;q=0, identity") << QString();
        QTest::newRow("unknown codings") << QByteArray("deflate, zstd") << QString();
        QTest::newRow("no Accept-Encoding") << QByteArray() << QString();
    }

    void sendsHashedAssetsCompressedAndImmutable()
    {
        QFETCH(QByteArray, acceptEncoding);
        QFETCH(QString, form);
        const QString script = asset(QStringLiteral("js"));
        QVERIFY(!script.isEmpty());
        QVERIFY(distFile(QStringLiteral("index.html")).contains(QByteArray("/" + script.toUtf8())));
        const QByteArray plain = distFile(script);
        const QByteArray sent = distFile(script + form);
        QVERIFY(!sent.isEmpty());

        const Response response =
            get('/' + script.toUtf8(),
                acceptEncoding.isEmpty() ? QByteArray() : "Accept-Encoding: " + acceptEncoding + "\r\n");
        QCOMPARE(response.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QList<QByteArray> expected{"Content-Type: text/javascript; charset=utf-8",
                                   "Content-Length: " + QByteArray::number(sent.size()),
                                   "Cache-Control: public, max-age=31536000, immutable"};
        if (form == QLatin1String(".br"))
            expected.append("Content-Encoding: br");
        else if (form == QLatin1String(".gz"))
            expected.append("Content-Encoding: gzip");
        expected += {"Vary: Accept-Encoding",           "ETag: " + etagOf(sent),        csp(m_relay.port).toUtf8(),
                     "X-Content-Type-Options: nosniff", "Referrer-Policy: no-referrer", "Connection: close"};
        QCOMPARE(response.headers, expected);
        QCOMPARE(response.body, sent);
        // Every form holds the file's bytes.
        if (form == QLatin1String(".br")) {
            QVERIFY(sent.size() < plain.size());
            QCOMPARE(unbrotli(response.body, plain.size() + 1), plain);
        } else if (form == QLatin1String(".gz")) {
            QVERIFY(sent.startsWith("\x1f\x8b"));
            QCOMPARE(gunzip(response.body), plain);
        }
    }

    void givesEachFormItsOwnETagAndAnswersWhatTheBrowserHasWith304()
    {
        const QByteArray path = "/" + asset(QStringLiteral("css")).toUtf8();
        const QByteArray plain = distFile(QString::fromUtf8(path.mid(1)));
        const QByteArray gzipped = distFile(QString::fromUtf8(path.mid(1)) + QStringLiteral(".gz"));
        const QByteArray brotli = distFile(QString::fromUtf8(path.mid(1)) + QStringLiteral(".br"));
        QVERIFY(!plain.isEmpty() && !gzipped.isEmpty() && !brotli.isEmpty());
        QCOMPARE(QSet<QByteArray>({etagOf(plain), etagOf(gzipped), etagOf(brotli)}).size(), 3);
        QCOMPARE(get(path, "Accept-Encoding: gzip\r\n").headers.value(5), "ETag: " + etagOf(gzipped));

        // The browser has the brotli form and asks for it again.
        const QByteArray has = "If-None-Match: " + etagOf(brotli) + "\r\n";
        const Response same = get(path, "Accept-Encoding: br, gzip\r\n" + has);
        QCOMPARE(same.statusLine, QByteArray("HTTP/1.1 304 Not Modified"));
        QCOMPARE(same.headers,
                 (QList<QByteArray>{"Cache-Control: public, max-age=31536000, immutable", "Content-Encoding: br",
                                    "Vary: Accept-Encoding", "ETag: " + etagOf(brotli), csp(m_relay.port).toUtf8(),
                                    "X-Content-Type-Options: nosniff", "Referrer-Policy: no-referrer",
                                    "Connection: close"}));
        QCOMPARE(same.body, QByteArray());
        // A weak form of the tag, or one among others, names it too.
        QCOMPARE(get(path, "Accept-Encoding: br\r\nIf-None-Match: \"x\", W/" + etagOf(brotli) + "\r\n").statusLine,
                 QByteArray("HTTP/1.1 304 Not Modified"));
        QCOMPARE(get(path, "Accept-Encoding: br\r\nIf-None-Match: *\r\n").statusLine,
                 QByteArray("HTTP/1.1 304 Not Modified"));
        // The brotli form's tag does not stand for another form.
        const Response other = get(path, "Accept-Encoding: gzip\r\n" + has);
        QCOMPARE(other.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(other.body, gzipped);
        QCOMPARE(get(path, has).body, plain);
        // The page itself is asked again on every load: its tag is what spares the bytes.
        const QByteArray index = distFile(QStringLiteral("index.html"));
        const Response page = get("/", "If-None-Match: " + etagOf(index) + "\r\n");
        QCOMPARE(page.statusLine, QByteArray("HTTP/1.1 304 Not Modified"));
        QCOMPARE(page.headers.mid(0, 3),
                 (QList<QByteArray>{"Cache-Control: no-cache", "Vary: Accept-Encoding", "ETag: " + etagOf(index)}));
        QCOMPARE(get("/", "If-None-Match: \"0123\"\r\n").body, index);
    }

    void compressesEveryTextFileOfTheBuild()
    {
        const QStringList compressible{QStringLiteral("*.js"),   QStringLiteral("*.css"),
                                       QStringLiteral("*.html"), QStringLiteral("*.svg"),
                                       QStringLiteral("*.json"), QStringLiteral("*.webmanifest")};
        QDirIterator it(QStringLiteral(BRINMOOR_WEB_DIST), compressible, QDir::Files, QDirIterator::Subdirectories);
        int checked = 0;
        while (it.hasNext()) {
            const QString path = it.next();
            const QByteArray plain = readFile(path);
            const QByteArray brotli = readFile(path + QStringLiteral(".br"));
            const QByteArray gzipped = readFile(path + QStringLiteral(".gz"));
            // A form is left out only when it would not be smaller.
            QVERIFY2(!brotli.isEmpty() || plain.size() < 64, qPrintable(path));
            if (!brotli.isEmpty()) {
                QVERIFY2(brotli.size() < plain.size(), qPrintable(path));
                QCOMPARE(unbrotli(brotli, plain.size() + 1), plain);
            }
            if (!gzipped.isEmpty()) {
                QVERIFY2(gzipped.size() < plain.size(), qPrintable(path));
                QCOMPARE(gunzip(gzipped), plain);
            }
            ++checked;
        }
        QVERIFY(checked >= 8);
        // A picture is sent as it is.
        const Response png = get("/icon-192.png", "Accept-Encoding: br, gzip\r\n");
        QCOMPARE(png.headers.mid(2, 2), (QList<QByteArray>{"Cache-Control: no-cache", "ETag: " + etagOf(png.body)}));
        QVERIFY(!QFile::exists(QStringLiteral(BRINMOOR_WEB_DIST "/icon-192.png.br")));
    }

    void namesEachKindOfFile()
    {
        const QString style = asset(QStringLiteral("css"));
        QVERIFY(!style.isEmpty());
        QCOMPARE(get('/' + style.toUtf8()).headers.first(), QByteArray("Content-Type: text/css; charset=utf-8"));
        const Response icon = get("/favicon.svg");
        QCOMPARE(icon.headers.mid(0, 3),
                 (QList<QByteArray>{"Content-Type: image/svg+xml",
                                    "Content-Length: " + QByteArray::number(distFile("favicon.svg").size()),
                                    "Cache-Control: no-cache"}));
    }

    // The service worker is fetched again whenever the browser looks for a new build, and
    // its scope is the root it is served from: no Service-Worker-Allowed is needed.
    void servesTheServiceWorkerUncached()
    {
        const QByteArray worker = distFile(QStringLiteral("sw.js"));
        const Response response = get("/sw.js");
        QCOMPARE(response.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(response.headers,
                 (QList<QByteArray>{"Content-Type: text/javascript; charset=utf-8",
                                    "Content-Length: " + QByteArray::number(worker.size()), "Cache-Control: no-cache",
                                    "Vary: Accept-Encoding", "ETag: " + etagOf(worker), csp(m_relay.port).toUtf8(),
                                    "X-Content-Type-Options: nosniff", "Referrer-Policy: no-referrer",
                                    "Connection: close"}));
        QCOMPARE(response.body, worker);
        // The shell it keeps is this build's: the index and the page's own script by name.
        const QRegularExpressionMatch shell =
            QRegularExpression(QStringLiteral("\\{\"version\":\"([0-9a-f]{16})\",\"files\":\\[([^\\]]*)\\]\\}"))
                .match(QString::fromUtf8(worker));
        QVERIFY2(shell.hasMatch(), worker.left(300).constData());
        const QStringList files = shell.captured(2).split(QLatin1Char(','));
        QVERIFY(files.contains(QStringLiteral("\"/\"")));
        QVERIFY(files.contains(QStringLiteral("\"/") + asset(QStringLiteral("js")) + QLatin1Char('"')));
        QVERIFY(files.contains(QStringLiteral("\"/manifest.webmanifest\"")));
        QVERIFY(!files.contains(QStringLiteral("\"/sw.js\"")));
        QVERIFY(!worker.contains("__BRINMOOR_SHELL__"));
    }

    void servesTheManifestAndItsIcons()
    {
        const QByteArray manifest = distFile(QStringLiteral("manifest.webmanifest"));
        const Response response = get("/manifest.webmanifest");
        QCOMPARE(response.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(response.headers.mid(0, 4),
                 (QList<QByteArray>{"Content-Type: application/manifest+json",
                                    "Content-Length: " + QByteArray::number(manifest.size()), "Cache-Control: no-cache",
                                    "Vary: Accept-Encoding"}));
        QCOMPARE(response.body, manifest);
        QVERIFY(
            distFile(QStringLiteral("index.html")).contains("<link rel=\"manifest\" href=\"/manifest.webmanifest\" />"));
        for (const QByteArray icon : {"/icon-192.png", "/icon-512.png"}) {
            const Response png = get(icon);
            QCOMPARE(png.headers.mid(0, 3),
                     (QList<QByteArray>{"Content-Type: image/png",
                                        "Content-Length: " +
                                            QByteArray::number(distFile(QString::fromLatin1(icon.mid(1))).size()),
                                        "Cache-Control: no-cache"}));
            QVERIFY(png.body.startsWith("\x89PNG\r\n\x1a\n"));
        }
    }

    void servesTheReadmeSectionOnEncryption()
    {
        const Response help = get("/help/reach-it-from-anywhere.html");
        QCOMPARE(help.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(help.headers.first(), QByteArray("Content-Type: text/html; charset=utf-8"));
        QVERIFY(help.body.contains("<h2 id=\"reach-it-from-anywhere\">Reach it from anywhere</h2>"));
        QVERIFY(help.body.contains("<h3 id=\"behind-a-reverse-proxy-nginx\">"));
        QCOMPARE(get("/help/help.css").headers.first(), QByteArray("Content-Type: text/css; charset=utf-8"));
    }

    void answersHeadWithoutABody()
    {
        const Response head = get("/", {}, "HEAD");
        QCOMPARE(head.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(head.headers.value(1),
                 "Content-Length: " + QByteArray::number(distFile(QStringLiteral("index.html")).size()));
        QCOMPARE(head.body, QByteArray());
        // The length is the one the same GET would have.
        const QByteArray brotli = distFile(QStringLiteral("index.html.br"));
        const Response compressed = get("/", "Accept-Encoding: br\r\n", "HEAD");
        QCOMPARE(compressed.headers.mid(1, 3),
                 (QList<QByteArray>{"Content-Length: " + QByteArray::number(brotli.size()), "Cache-Control: no-cache",
                                    "Content-Encoding: br"}));
        QCOMPARE(compressed.body, QByteArray());
    }

    void refusesOtherMethodsAndUnknownFiles()
    {
        const Response post = get("/", "Content-Length: 0\r\n", "POST");
        QCOMPARE(post.statusLine, QByteArray("HTTP/1.1 405 Method Not Allowed"));
        QCOMPARE(post.headers.mid(0, 4), (QList<QByteArray>{"Content-Type: application/json", "Content-Length: 30",
                                                            "Allow: GET, HEAD", "Cache-Control: no-store"}));
        QCOMPARE(post.body, QByteArray("{\"error\":\"method not allowed\"}"));
        for (const QByteArray path : {"/nope", "/index.html", "/assets/../index.html", "/assets/", "/v1x"}) {
            const Response missing = get(path);
            QCOMPARE(missing.statusLine, QByteArray("HTTP/1.1 404 Not Found"));
            QCOMPARE(missing.body, QByteArray("{\"error\":\"not found\"}"));
            QVERIFY(missing.headers.contains("X-Content-Type-Options: nosniff"));
            QVERIFY(missing.headers.contains(csp(m_relay.port).toUtf8()));
        }
    }

    void keepsAStrangeHostOutOfThePolicy()
    {
        // The relay serves no page to such a Host at all; the policy would not take it in
        // either.
        const Response refused =
            parse(httpExchange(m_relay.port, "GET / HTTP/1.1\r\nHost: evil.test; script-src *\r\n\r\n"));
        QCOMPARE(refused.statusLine, QByteArray("HTTP/1.1 421 Misdirected Request"));
        QCOMPARE(refused.body, QByteArray("{\"error\":\"host not allowed: add it to BRINMOOR_ALLOWED_HOSTS\"}"));
        QCOMPARE(brinmoor::relay::StaticFiles::contentSecurityPolicy("evil.test; script-src *"),
                 QByteArray("default-src 'none'; script-src 'self'; "
                            "style-src 'self'; style-src-attr 'unsafe-inline'; img-src 'self'; "
                            "font-src 'self'; connect-src 'self'; "
                            "manifest-src 'self'; worker-src 'self'; base-uri 'none'; "
                            "form-action 'none'; frame-ancestors 'none'"));
    }

    void leavesTheApiAsItWas()
    {
        QCOMPARE(httpExchange(m_relay.port, "GET /v1/nope HTTP/1.1\r\n\r\n"),
                 QByteArray("HTTP/1.1 404 Not Found\r\nContent-Type: application/json\r\nContent-Length: 21\r\n"
                            "Cache-Control: no-store\r\nConnection: close\r\n\r\n{\"error\":\"not found\"}"));
        QCOMPARE(statusAndBody(httpExchange(m_relay.port, "GET /v1/agents HTTP/1.1\r\n\r\n")),
                 QStringLiteral("HTTP/1.1 401 Unauthorized\n{\"error\":\"unauthorized\"}"));
        QCOMPARE(statusAndBody(httpExchange(m_relay.port, "GET /v1/health HTTP/1.1\r\n\r\n")),
                 QStringLiteral("HTTP/1.1 200 OK\n{\"ok\":true}"));
    }
};

QTEST_GUILESS_MAIN(TstStaticFiles)
#include "tst_static_files.moc"
