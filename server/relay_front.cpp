#include "relay_front.h"

#include "connections_by_address.h"
#include "http_request.h"
#include "relay_connection.h"
#include "relay_log.h"
#include "static_files.h"

#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>

namespace brinmoor::relay {

namespace {

QByteArray bearerToken(const HttpRequest& request)
{
    const QByteArray authorization = request.header("authorization");
    if (authorization.size() > 7 && authorization.first(7).compare("Bearer ", Qt::CaseInsensitive) == 0)
        return authorization.mid(7).trimmed();
    return {};
}

QList<QByteArray> offeredSubprotocols(const HttpRequest& request)
{
    QList<QByteArray> offered;
    for (const auto& [name, value] : request.headers) {
        if (name != "sec-websocket-protocol")
            continue;
        for (const QByteArray& part : value.split(',')) {
            if (!part.trimmed().isEmpty())
                offered.append(part.trimmed());
        }
    }
    return offered;
}

// The methods a path under /v1 takes (besides /v1/health); none for a path there is not.
QList<QByteArray> methodsOf(const QByteArray& path)
{
    if (path == "/v1/ws/agent" || path == "/v1/ws/client" || path == "/v1/agents" || path == "/v1/push/key")
        return {"GET"};
    if (path == "/v1/approvals" || path == "/v1/push/decision")
        return {"POST"};
    if (path == "/v1/push/subscriptions")
        return {"GET", "POST"};
    static const QRegularExpression subscription(
        QStringLiteral("^/v1/push/subscriptions/[A-Za-z0-9_-]{1,64}(/test)?$"));
    const QRegularExpressionMatch match = subscription.match(QString::fromLatin1(path));
    if (!match.hasMatch())
        return {};
    return {match.hasCaptured(1) ? QByteArray("POST") : QByteArray("DELETE")};
}

QByteArray error(int status, const QString& text, QByteArrayView extraHeaders = {})
{
    return RelayMessages::httpErrorResponse(status, text, extraHeaders);
}

// A request refused for a header it gave: the log line names the header's value.
struct Refusal {
    const char* event;
    const char* header;
    QByteArray value;
};

void refuse(RelayConnection& connection, const HttpRequest& request, const Refusal& refusal, int status,
            const QString& text)
{
    logEvent(refusal.event, {{"address", connection.address()},
                             {"path", QString::fromUtf8(request.path)},
                             {refusal.header, QString::fromUtf8(refusal.value)}});
    connection.respond(error(status, text));
}

} // namespace

RelayFront::RelayFront(const RelayConfig& config, const QElapsedTimer& clock, ConnectionsByAddress& unjudged,
                       FrontDesk& desk)
    : m_config(config), m_clock(clock), m_unjudged(unjudged), m_desk(desk), m_auth(config.token, config.guesses),
      m_origins(config.allowedOrigins), m_hosts(config.allowedHosts)
{
    m_turnTimer.setSingleShot(true);
    // A turn comes at its millisecond, not some time around it.
    m_turnTimer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_turnTimer, &QTimer::timeout, &m_turnTimer, [this] { takeTurns(); });
}

void RelayFront::forget(RelayConnection& connection)
{
    m_turns.remove(&connection);
}

void RelayFront::takeForwardedAddress(RelayConnection& connection, const HttpRequest& request)
{
    if (!m_config.trustedProxies.contains(connection.peerAddress()))
        return;
    connection.setAddress(
        m_config.trustedProxies.clientAddress(connection.peerAddress(), request.headerValues("x-forwarded-for")));
}

void RelayFront::requestReceived(RelayConnection& connection, const HttpRequest& request)
{
    takeForwardedAddress(connection, request);
    if (!hostServed(connection, request))
        return;
    const QByteArray& path = request.path;
    if (path != "/v1" && !path.startsWith("/v1/")) {
        const StaticFiles::Response file = StaticFiles::response(request);
        connection.respond(file.head, file.body);
        return;
    }
    if (path == "/v1/health") {
        if (request.method == "GET" || request.method == "HEAD")
            connection.respond(jsonResponse(200, "{\"ok\":true}"));
        else
            connection.respond(error(405, QStringLiteral("method not allowed"), "Allow: GET\r\n"));
        return;
    }
    // Everything else under /v1 needs the token, and a browser's page must be one the
    // relay trusts; all of it is decided from the head, before any body is read.
    const QList<QByteArray> methods = methodsOf(path);
    if (methods.isEmpty()) {
        connection.respond(error(404, QStringLiteral("not found")));
        return;
    }
    if (!originAllowed(connection, request))
        return;
    if (!methods.contains(request.method)) {
        connection.respond(
            error(405, QStringLiteral("method not allowed"), QByteArray("Allow: " + methods.join(", ") + "\r\n")));
        return;
    }
    // The token is judged now, or, from an address that failed recently, in its turn;
    // meanwhile the request waits, read but not judged.
    const QString key = AuthGuard::keyOf(connection.address());
    if (m_turns.hasLine(key) || !m_auth.mayJudge(key, m_clock.elapsed())) {
        m_turns.add(key, &connection, request);
        connection.wait(m_config.limits.headTimeoutMs);
        if (!m_takingTurns)
            scheduleTurns();
        return;
    }
    judge(connection, request);
}

void RelayFront::judge(RelayConnection& connection, const HttpRequest& request)
{
    QByteArray subprotocol;
    if (!authorize(connection, request, &subprotocol))
        return;
    m_unjudged.remove(&connection);
    const QByteArray& path = request.path;

    if (path == "/v1/agents") {
        connection.respond(jsonResponse(200, RelayMessages::agentList(m_desk.agentRecords())));
        return;
    }
    if (path == "/v1/approvals") {
        connection.readBody();
        return;
    }
    if (path.startsWith("/v1/push/")) {
        // Subscribing and deciding carry a body; the rest is said by the path.
        if (request.method == "POST" && !path.endsWith("/test"))
            connection.readBody();
        else
            m_desk.pushRequest(connection, request, {});
        return;
    }
    const QByteArray key = request.header("sec-websocket-key");
    if (!request.headerHasToken("upgrade", "websocket") || !request.headerHasToken("connection", "upgrade") ||
        QByteArray::fromBase64(key).size() != 16) {
        connection.respond(error(400, QStringLiteral("not a WebSocket handshake")));
        return;
    }
    if (request.header("sec-websocket-version") != "13") {
        connection.respond(
            error(426, QStringLiteral("unsupported WebSocket version"), "Sec-WebSocket-Version: 13\r\n"));
        return;
    }
    if (path == "/v1/ws/agent")
        m_desk.acceptAgent(connection, request);
    else
        m_desk.acceptClient(connection, request, subprotocol);
}

void RelayFront::takeTurns()
{
    if (m_takingTurns)
        return;
    m_takingTurns = true;
    // A right token moves no turn: the requests behind it are judged at once.
    while (std::optional<WaitingTurns::Waiting> next = m_turns.takeNext(m_auth, m_clock.elapsed())) {
        next->connection->resume();
        judge(*next->connection, next->request);
    }
    m_takingTurns = false;
    scheduleTurns();
}

void RelayFront::scheduleTurns()
{
    const qint64 now = m_clock.elapsed();
    const qint64 turn = m_turns.nextTurn(m_auth, now);
    if (turn < 0)
        m_turnTimer.stop();
    else
        m_turnTimer.start(int(std::clamp<qint64>(turn - now, 0, m_config.limits.headTimeoutMs)));
}

void RelayFront::waitExpired(RelayConnection& connection)
{
    const std::optional<WaitingTurns::Waiting> waiting = m_turns.remove(&connection);
    logEvent("auth.refused",
             {{"address", connection.address()},
              {"path", waiting ? QString::fromUtf8(waiting->request.path) : QString()},
              {"reason", QStringLiteral("no turn within %1 s").arg(m_config.limits.headTimeoutMs / 1000)}});
    connection.respond(error(429, QStringLiteral("too many failed attempts; try again later"), "Retry-After: 1\r\n"));
}

bool RelayFront::hostServed(RelayConnection& connection, const HttpRequest& request)
{
    // A browser always names the host it resolved; a program that leaves Host out
    // (HTTP/1.0) names nothing that could have been pointed here.
    const QList<QByteArray> hosts = request.headerValues("host");
    if (hosts.isEmpty() ||
        (hosts.size() == 1 && m_hosts.serves(hosts.first(), connection.localAddress(), m_clock.elapsed())))
        return true;
    refuse(connection, request, {"host.refused", "host", hosts.join(", ")}, 421,
           QStringLiteral("host not allowed: add it to BRINMOOR_ALLOWED_HOSTS"));
    return false;
}

bool RelayFront::originAllowed(RelayConnection& connection, const HttpRequest& request)
{
    // Only browsers send an Origin; the agent, the phone app and the approval tool do not.
    if (!request.hasHeader("origin") ||
        m_origins.allows(request.header("origin"), request.header("host"), connection.isEncrypted()))
        return true;
    refuse(connection, request, {"origin.refused", "origin", request.header("origin")}, 403,
           QStringLiteral("origin not allowed"));
    return false;
}

bool RelayFront::authorize(RelayConnection& connection, const HttpRequest& request, QByteArray* subprotocol)
{
    const QByteArray bearer = bearerToken(request);
    bool presented = !bearer.isEmpty();
    bool granted = m_auth.tokenMatches(bearer);
    // Browsers cannot set headers on a WebSocket, so clients may carry the token as a
    // subprotocol "bearer.TOKEN"; the server answers with a protocol the client offered.
    if (request.path == "/v1/ws/client") {
        QByteArray bearerOffer;
        for (const QByteArray& offer : offeredSubprotocols(request)) {
            if (offer.startsWith("bearer.")) {
                presented = true;
                if (m_auth.tokenMatches(QByteArrayView(offer).sliced(7))) {
                    granted = true;
                    bearerOffer = offer;
                }
            } else if (subprotocol->isEmpty()) {
                *subprotocol = offer;
            }
        }
        if (subprotocol->isEmpty())
            *subprotocol = bearerOffer;
    }
    // The right token is always served, even to a blocked address; only wrong ones are
    // held back.
    if (granted)
        return true;
    const QString& address = connection.address();
    const QString key = AuthGuard::keyOf(address);
    const QString path = QString::fromUtf8(request.path);
    const qint64 now = m_clock.elapsed();
    const bool blocked = m_auth.isBlocked(key, now);
    const QString reason = blocked     ? QStringLiteral("too many failed attempts")
                           : presented ? QStringLiteral("wrong token")
                                       : QStringLiteral("no token");
    logEvent("auth.refused", {{"address", address}, {"path", path}, {"reason", reason}});
    // Every failure moves the address's turn, a blocked one's too.
    if (m_auth.recordFailure(key, now))
        logEvent("auth.blocked", {{"address", address}, {"seconds", QString::number(m_auth.limits().blockMs / 1000)}});
    if (blocked) {
        connection.respond(
            error(429, QStringLiteral("too many failed attempts; try again later"),
                  QByteArray("Retry-After: " + QByteArray::number(m_auth.limits().blockMs / 1000) + "\r\n")));
    } else {
        connection.respond(error(401, QStringLiteral("unauthorized"), "WWW-Authenticate: Bearer\r\n"));
    }
    return false;
}

void RelayFront::bodyReceived(RelayConnection& connection, const HttpRequest& head, const QByteArray& body)
{
    if (head.path != "/v1/approvals") {
        m_desk.pushRequest(connection, head, body);
        return;
    }
    const QJsonDocument document = QJsonDocument::fromJson(body);
    const QJsonObject object = document.object();
    if (!document.isObject()) {
        connection.respond(error(400, QStringLiteral("the body must be a JSON object")));
        return;
    }
    PermissionRequest request;
    request.taskId = object.value(QStringLiteral("taskId")).toString();
    request.toolName = object.value(QStringLiteral("toolName")).toString();
    request.toolInput = object.value(QStringLiteral("toolInput"));
    if (request.toolInput.isUndefined())
        request.toolInput = QJsonObject();
    request.toolUseId = object.value(QStringLiteral("toolUseId")).toString();
    if (request.taskId.isEmpty()) {
        connection.respond(error(400, QStringLiteral("taskId is missing")));
        return;
    }
    if (request.toolName.isEmpty()) {
        connection.respond(error(400, QStringLiteral("toolName is missing")));
        return;
    }
    request.agentId = m_desk.agentOfTask(request.taskId);
    if (request.agentId.isEmpty()) {
        connection.respond(error(404, QStringLiteral("unknown task: ") + request.taskId));
        return;
    }
    m_desk.holdApproval(connection, request);
}

} // namespace brinmoor::relay
