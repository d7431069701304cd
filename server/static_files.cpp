#include "static_files.h"

#include "relay_messages.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFile>
#include <QHash>
#include <QResource>

#include <optional>

#ifdef BRINMOOR_WITHOUT_WEB_CLIENT
// A relay built without the web client (BRINMOOR_WITH_WEB=OFF) serves no page.
constexpr bool kWebClientBuilt = false;
static void initWebResources() {}
#else
constexpr bool kWebClientBuilt = true;
// The resource is compiled into this library; naming it keeps the linker from dropping it.
static void initWebResources()
{
    Q_INIT_RESOURCE(brinmoor_web);
}
#endif

namespace brinmoor::relay::StaticFiles {

namespace {

constexpr QByteArrayView kRoot = ":/web";
// Vite names what it puts under assets/ after a hash of the content: such a file never
// changes, so browsers keep it for a year without asking again.
constexpr QByteArrayView kHashedPrefix = "/assets/";

// One form of a file: its bytes and the ETag that names them.
struct Body {
    QByteArray bytes;
    QByteArray etag; // empty when there is no such form
};

struct File {
    Body identity;
    Body gzip;   // from NAME.gz, when the build left one
    Body brotli; // from NAME.br, likewise
    QByteArray contentType;
    bool immutable = false;

    bool hasEncodings() const { return !gzip.bytes.isEmpty() || !brotli.bytes.isEmpty(); }
};

// Where the files are: the client compiled in, or the folder BRINMOOR_TEST_WEB_ROOT names.
// Only the browser tests and the benchmark set it, to load a build of the client that
// carries their taps (web/README.md); a relay serves its own client otherwise.
QString webRoot()
{
    const QString folder = qEnvironmentVariable("BRINMOOR_TEST_WEB_ROOT");
    return folder.isEmpty() ? QString::fromLatin1(kRoot) : QDir(folder).absolutePath();
}

QByteArray resourceBytes(const QString& path)
{
    if (!path.startsWith(u':')) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    const QResource resource(path);
    if (!resource.isValid())
        return {};
    // Stored uncompressed (rcc --no-compress), so the bytes can be used where they are.
    if (resource.compressionAlgorithm() == QResource::NoCompression)
        return QByteArray::fromRawData(reinterpret_cast<const char*>(resource.data()), resource.size());
    return resource.uncompressedData();
}

// A form of a file with a strong ETag made of its bytes: every form of every file has its
// own, so a cache never takes one encoding for another.
Body body(const QByteArray& bytes)
{
    if (bytes.isEmpty())
        return {};
    return Body{bytes, '"' + QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex().left(32) + '"'};
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
        const QString root = webRoot();
        QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString resourcePath = it.next();
            if (resourcePath.endsWith(QLatin1String(".gz")) || resourcePath.endsWith(QLatin1String(".br")))
                continue;
            QByteArray urlPath = resourcePath.mid(root.size()).toUtf8();
            File file{body(resourceBytes(resourcePath)), body(resourceBytes(resourcePath + QStringLiteral(".gz"))),
                      body(resourceBytes(resourcePath + QStringLiteral(".br"))), contentTypeOf(urlPath),
                      urlPath.startsWith(kHashedPrefix)};
            if (urlPath == "/index.html")
                urlPath = "/";
            all.insert(urlPath, file);
        }
        return all;
    }();
    return table;
}

// Whether Accept-Encoding takes `coding`: named with a weight above 0, or left to "*"
// with one.
bool accepts(const HttpRequest& request, QByteArrayView coding)
{
    std::optional<bool> named;
    std::optional<bool> anyOther;
    for (const auto& [name, value] : request.headers) {
        if (name != "accept-encoding")
            continue;
        for (const QByteArray& part : value.split(',')) {
            const QList<QByteArray> pieces = part.split(';');
            const QByteArray token = pieces.first().trimmed().toLower();
            bool wanted = true;
            for (const QByteArray& parameter : pieces.mid(1)) {
                const QByteArray p = parameter.trimmed().toLower();
                if (p.startsWith("q=") && p.mid(2).trimmed().toDouble() <= 0.0)
                    wanted = false;
            }
            if (token == coding)
                named = wanted;
            else if (token == "*")
                anyOther = wanted;
        }
    }
    return named.value_or(anyOther.value_or(false));
}

// Whether If-None-Match names this ETag (or any, with "*"); weak forms match too.
bool alreadyHas(const HttpRequest& request, const QByteArray& etag)
{
    for (const auto& [name, value] : request.headers) {
        if (name != "if-none-match")
            continue;
        for (const QByteArray& part : value.split(',')) {
            QByteArray tag = part.trimmed();
            if (tag == "*")
                return true;
            if (tag.startsWith("W/"))
                tag = tag.mid(2);
            if (tag == etag)
                return true;
        }
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

Response response(const HttpRequest& request)
{
    const QByteArray security = securityHeaders(request);
    if (request.method != "GET" && request.method != "HEAD") {
        const QByteArray body = RelayMessages::httpError(QStringLiteral("method not allowed"));
        return {
            head(405, "application/json", body.size(), "Allow: GET, HEAD\r\nCache-Control: no-store\r\n" + security),
            body};
    }
    if (!kWebClientBuilt) {
        const QByteArray body = RelayMessages::httpError(QStringLiteral("web client not built"));
        return {head(404, "application/json", body.size(), "Cache-Control: no-store\r\n" + security), body};
    }
    const auto found = files().constFind(request.path);
    if (found == files().constEnd()) {
        const QByteArray body = RelayMessages::httpError(QStringLiteral("not found"));
        return {head(404, "application/json", body.size(), "Cache-Control: no-store\r\n" + security), body};
    }
    // Brotli is the smaller, gzip what every browser takes.
    const File& file = *found;
    const Body* chosen = &file.identity;
    QByteArray encoding;
    if (!file.brotli.bytes.isEmpty() && accepts(request, "br")) {
        chosen = &file.brotli;
        encoding = "br";
    } else if (!file.gzip.bytes.isEmpty() && accepts(request, "gzip")) {
        chosen = &file.gzip;
        encoding = "gzip";
    }
    QByteArray headers =
        file.immutable ? "Cache-Control: public, max-age=31536000, immutable\r\n" : "Cache-Control: no-cache\r\n";
    if (!encoding.isEmpty())
        headers += "Content-Encoding: " + encoding + "\r\n";
    if (file.hasEncodings())
        headers += "Vary: Accept-Encoding\r\n";
    headers += "ETag: " + chosen->etag + "\r\n";
    if (alreadyHas(request, chosen->etag)) {
        return {"HTTP/1.1 304 Not Modified\r\n" + headers + security + "Connection: close\r\n\r\n", {}};
    }
    QByteArray reply = head(200, file.contentType, chosen->bytes.size(), headers + security);
    if (request.method == "GET")
        return {reply, chosen->bytes};
    return {reply, {}};
}

} // namespace brinmoor::relay::StaticFiles
