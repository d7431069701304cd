// The browser client as brinmoor-server serves it: the built files, their content types,
// caching and security headers, gzip for browsers that take it, and the /v1 endpoints
// exactly as before.
#include "static_files.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/test_support.h"

#include <QDir>
#include <QRegularExpression>
#include <QTest>

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
        QCOMPARE(index.headers, (QList<QByteArray>{"Content-Type: text/html; charset=utf-8",
                                                   "Content-Length: " + QByteArray::number(html.size()),
                                                   "Cache-Control: no-cache", "Vary: Accept-Encoding",
                                                   csp(m_relay.port).toUtf8(), "X-Content-Type-Options: nosniff",
                                                   "Referrer-Policy: no-referrer", "Connection: close"}));
        QCOMPARE(index.body, html);
    }

    void sendsHashedAssetsGzippedAndImmutable()
    {
        const QString script = asset(QStringLiteral("js"));
        QVERIFY(!script.isEmpty());
        QVERIFY(distFile(QStringLiteral("index.html")).contains(QByteArray("/" + script.toUtf8())));
        const QByteArray gzipped = distFile(script + QStringLiteral(".gz"));
        QVERIFY(gzipped.startsWith("\x1f\x8b"));

        const Response compressed = get('/' + script.toUtf8(), "Accept-Encoding: gzip, deflate, br\r\n");
        QCOMPARE(compressed.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(compressed.headers.mid(0, 5),
                 (QList<QByteArray>{"Content-Type: text/javascript; charset=utf-8",
                                    "Content-Length: " + QByteArray::number(gzipped.size()),
                                    "Cache-Control: public, max-age=31536000, immutable", "Content-Encoding: gzip",
                                    "Vary: Accept-Encoding"}));
        QCOMPARE(compressed.body, gzipped);

        const Response plain = get('/' + script.toUtf8());
        QVERIFY(!plain.headers.contains("Content-Encoding: gzip"));
        QCOMPARE(plain.body, distFile(script));
        const Response refused = get('/' + script.toUtf8(), "Accept-Encoding: gzip;q=0, identity\r\n");
        QCOMPARE(refused.body, distFile(script));
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
        QCOMPARE(response.headers, (QList<QByteArray>{"Content-Type: text/javascript; charset=utf-8",
                                                      "Content-Length: " + QByteArray::number(worker.size()),
                                                      "Cache-Control: no-cache", "Vary: Accept-Encoding",
                                                      csp(m_relay.port).toUtf8(), "X-Content-Type-Options: nosniff",
                                                      "Referrer-Policy: no-referrer", "Connection: close"}));
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
