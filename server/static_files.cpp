#include "static_files.h"

#include "relay_messages.h"

#include <QDirIterator>
#include <QHash>
#include <QResource>

// The resource is compiled into this library; naming it keeps the linker from dropping it.
static void initWebResources()
{
    Q_INIT_RESOURCE(brinmoor_web);
}

namespace brinmoor::relay::StaticFiles {

namespace {

constexpr QByteArrayView kRoot = ":/web";
// Vite names what it puts under assets/ after a hash of the content: such a file never
// changes, so browsers keep it for a year without asking again.
constexpr QByteArrayView kHashedPrefix = "/assets/";

struct File {
    QByteArray content;
    QByteArray gzipped; // empty when the build left no NAME.gz
    QByteArray contentType;
    bool immutable = false;
};

QByteArray resourceBytes(const QString& path)
{
    const QResource resource(path);
    if (!resource.isValid())
        return {};
    // Stored uncompressed (rcc --no-compress), so the bytes can be used where they are.
    if (resource.compressionAlgorithm() == QResource::NoCompression)
        return QByteArray::fromRawData(reinterpret_cast<const char*>(resource.data()), resource.size());
    return resource.uncompressedData();
}

QByteArray contentTypeOf(QByteArrayView path)
{
    static const QHash<QByteArray, QByteArray> types{
        {"html", "text/html; charset=utf-8"},
        {"js", "text/javascript; charset=utf-8"},
        {"css", "text/css; charset=utf-8"},
        {"svg", "image/svg+xml"},
        {"png", "image/png"},
        {"ico", "image/x-icon"},
        {"woff2", "font/woff2"},
        {"json", "application/json"},
        {"webmanifest", "application/manifest+json"},
        {"txt", "text/plain; charset=utf-8"},
    };
    const qsizetype dot = path.lastIndexOf('.');
    return types.value(dot < 0 ? QByteArray() : path.sliced(dot + 1).toByteArray(), "application/octet-stream");
}

// Every file of the built client by its URL path; "/" is the index.
const QHash<QByteArray, File>& files()
{
    static const QHash<QByteArray, File> table = [] {
        initWebResources();
        QHash<QByteArray, File> all;
        QDirIterator it(QString::fromLatin1(kRoot), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString resourcePath = it.next();
            if (resourcePath.endsWith(QLatin1String(".gz")))
                continue;
            QByteArray urlPath = resourcePath.mid(kRoot.size()).toUtf8();
            File file{resourceBytes(resourcePath), resourceBytes(resourcePath + QStringLiteral(".gz")),
                      contentTypeOf(urlPath), urlPath.startsWith(kHashedPrefix)};
            if (urlPath == "/index.html")
                urlPath = "/";
            all.insert(urlPath, file);
        }
        return all;
    }();
    return table;
}

bool acceptsGzip(const HttpRequest& request)
{
    for (const QByteArray& part : request.header("accept-encoding").split(',')) {
        const QList<QByteArray> pieces = part.split(';');
        if (pieces.first().trimmed().toLower() != "gzip")
            continue;
        for (const QByteArray& parameter : pieces.mid(1)) {
            const QByteArray p = parameter.trimmed().toLower();
            if (p.startsWith("q=") && p.mid(2).toDouble() == 0.0)
                return false;
        }
        return true;
    }
    return false;
}

// A Host header is the browser's own origin; anything that does not look like a host
// name or an address with a port is left out of the policy rather than echoed.
bool isPlainHost(QByteArrayView host)
{
    if (host.isEmpty() || host.size() > 255)
        return false;
    for (char c : host) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                             c == '-' || c == ':' || c == '[' || c == ']';
        if (!allowed)
            return false;
    }
    return true;
}

QByteArray securityHeaders(const HttpRequest& request)
{
    return "Content-Security-Policy: " + contentSecurityPolicy(request.header("host")) +
           "\r\nX-Content-Type-Options: nosniff\r\nReferrer-Policy: no-referrer\r\n";
}

QByteArray head(int status, QByteArrayView contentType, qsizetype length, const QByteArray& headers)
{
    return "HTTP/1.1 " + QByteArray::number(status) + ' ' + statusReason(status).toByteArray() +
           "\r\nContent-Type: " + contentType.toByteArray() + "\r\nContent-Length: " + QByteArray::number(length) +
           "\r\n" + headers + "Connection: close\r\n\r\n";
}

} // namespace

QByteArray contentSecurityPolicy(QByteArrayView host)
{
    QByteArray connect = "'self'";
    if (isPlainHost(host))
        connect += " ws://" + host.toByteArray() + " wss://" + host.toByteArray();
    // Style attributes are let through, style elements are not: the terminal's renderer
    // colours 24-bit colours and selected text with them, and the markup of chats and
    // logs is cleaned of them before it is shown.
    return "default-src 'none'; script-src 'self'; style-src 'self'; style-src-attr 'unsafe-inline'; "
           "img-src 'self'; font-src 'self'; connect-src " +
           connect +
           "; manifest-src 'self'; worker-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
}

QByteArray response(const HttpRequest& request)
{
    const QByteArray security = securityHeaders(request);
    if (request.method != "GET" && request.method != "HEAD") {
        const QByteArray body = RelayMessages::httpError(QStringLiteral("method not allowed"));
        return head(405, "application/json", body.size(),
                    "Allow: GET, HEAD\r\nCache-Control: no-store\r\n" + security) +
               body;
    }
    const auto found = files().constFind(request.path);
    if (found == files().constEnd()) {
        const QByteArray body = RelayMessages::httpError(QStringLiteral("not found"));
        return head(404, "application/json", body.size(), "Cache-Control: no-store\r\n" + security) + body;
    }
    const File& file = *found;
    const bool gzip = !file.gzipped.isEmpty() && acceptsGzip(request);
    const QByteArray& body = gzip ? file.gzipped : file.content;
    QByteArray headers =
        file.immutable ? "Cache-Control: public, max-age=31536000, immutable\r\n" : "Cache-Control: no-cache\r\n";
    if (gzip)
        headers += "Content-Encoding: gzip\r\n";
    if (!file.gzipped.isEmpty())
        headers += "Vary: Accept-Encoding\r\n";
    QByteArray reply = head(200, file.contentType, body.size(), headers + security);
    if (request.method == "GET")
        reply += body;
    return reply;
}

} // namespace brinmoor::relay::StaticFiles
