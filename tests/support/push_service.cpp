#include "push_service.h"

#include "support/loopback_server.h"
#include "web_push_crypto.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSslKey>

namespace brinmoor::test {

namespace crypto = relay::WebPushCrypto;

namespace {

constexpr qint64 kMostTokenSeconds = 24 * 3600;

QByteArray statusText(int status)
{
    switch (status) {
    case 201: return "Created";
    case 404: return "Not Found";
    case 410: return "Gone";
    case 429: return "Too Many Requests";
    case 503: return "Service Unavailable";
    default: return "Status";
    }
}

} // namespace

QJsonObject PushService::Device::subscription() const
{
    return QJsonObject{
        {QStringLiteral("endpoint"), endpoint},
        {QStringLiteral("expirationTime"), QJsonValue::Null},
        {QStringLiteral("keys"),
         QJsonObject{{QStringLiteral("p256dh"), QString::fromLatin1(crypto::base64Url(key.publicPoint()))},
                     {QStringLiteral("auth"), QString::fromLatin1(crypto::base64Url(authSecret))}}},
    };
}

PushService::PushService(QObject* parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::pendingConnectionAvailable, this, [this] {
        while (QTcpSocket* next = m_server.nextPendingConnection()) {
            auto* socket = qobject_cast<QSslSocket*>(next);
            connect(socket, &QIODevice::readyRead, this, [this, socket] { readFrom(socket); });
            connect(socket, &QAbstractSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QObject::destroyed, this, [this, socket] { m_received.remove(socket); });
        }
    });
}

PushService::~PushService()
{
    // The connections go before what they report to.
    for (QSslSocket* socket : m_server.findChildren<QSslSocket*>()) {
        socket->disconnect(this);
        delete socket;
    }
}

bool PushService::listen()
{
    if (!m_authority.error().isEmpty()) {
        m_error = m_authority.error();
        return false;
    }
    const auto issued = m_authority.issue(QStringLiteral("push.test"), {QStringLiteral("IP:127.0.0.1")});
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setLocalCertificateChain(QSslCertificate::fromPath(issued.certificate));
    QFile keyFile(issued.key);
    if (!keyFile.open(QIODevice::ReadOnly)) {
        m_error = keyFile.errorString();
        return false;
    }
    tls.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Ec));
    tls.setPeerVerifyMode(QSslSocket::VerifyNone);
    m_server.setSslConfiguration(tls);
    if (!m_server.listen(QHostAddress::LocalHost, 0)) {
        m_error = m_server.errorString();
        return false;
    }
    return true;
}

QString PushService::origin() const
{
    return QStringLiteral("https://127.0.0.1:%1").arg(m_server.serverPort());
}

PushService::Device PushService::newDevice()
{
    Device device;
    device.endpoint = origin() + QStringLiteral("/push/device-%1").arg(++m_devicesMade);
    device.key = relay::EcKey::generate();
    device.authSecret.resize(16);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(device.authSecret.data()), 4);
    m_devices.insert(QUrl(device.endpoint).path(), device);
    return device;
}

void PushService::answerNext(int status, const QByteArray& retryAfter)
{
    m_answers.enqueue({status, retryAfter});
}

bool PushService::waitForPushes(int count, int timeoutMs)
{
    return waitUntil([&] { return m_pushes.size() >= count; }, timeoutMs);
}

void PushService::readFrom(QSslSocket* socket)
{
    QByteArray& received = m_received[socket];
    received += socket->readAll();
    const qsizetype headEnd = received.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return;
    Push push;
    const QList<QByteArray> lines = received.left(headEnd).split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    push.path = QString::fromLatin1(requestLine.value(1));
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            push.headers.insert(lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
    }
    const qsizetype length = push.headers.value("content-length").toLongLong();
    if (received.size() < headEnd + 4 + length)
        return;
    push.body = received.mid(headEnd + 4, length);
    received.remove(0, headEnd + 4 + length);
    if (requestLine.value(0) != "POST")
        push.problem = QStringLiteral("method ") + QString::fromLatin1(requestLine.value(0));
    else
        check(push);
    const auto [status, retryAfter] = m_answers.isEmpty() ? qMakePair(201, QByteArray()) : m_answers.dequeue();
    push.answeredStatus = push.problem.isEmpty() ? status : 400;
    const QByteArray body = push.problem.isEmpty() ? QByteArray() : push.problem.toUtf8();
    QByteArray response = "HTTP/1.1 " + QByteArray::number(push.answeredStatus) + ' ' +
                          statusText(push.answeredStatus) + "\r\nContent-Length: " + QByteArray::number(body.size()) +
                          "\r\n";
    if (!retryAfter.isEmpty())
        response += "Retry-After: " + retryAfter + "\r\n";
    socket->write(response + "\r\n" + body);
    m_pushes.append(push);
}

void PushService::check(Push& push)
{
    const auto device = m_devices.constFind(push.path);
    if (device == m_devices.constEnd()) {
        push.problem = QStringLiteral("no such device: ") + push.path;
        return;
    }
    // "vapid t=HEADER.CLAIMS.SIGNATURE, k=KEY"
    const QByteArray authorization = push.headers.value("authorization");
    const qsizetype keyAt = authorization.indexOf(", k=");
    if (!authorization.startsWith("vapid t=") || keyAt < 0) {
        push.problem = QStringLiteral("no vapid authorization");
        return;
    }
    const QByteArray token = authorization.mid(8, keyAt - 8);
    push.key = authorization.mid(keyAt + 4);
    const QList<QByteArray> parts = token.split('.');
    const std::optional<relay::EcKey> signer = relay::EcKey::fromPublic(crypto::fromBase64Url(push.key).value_or(""));
    if (parts.size() != 3 || !signer) {
        push.problem = QStringLiteral("a token or key that cannot be read");
        return;
    }
    const QJsonObject header = QJsonDocument::fromJson(crypto::fromBase64Url(parts[0]).value_or("")).object();
    push.claims = QJsonDocument::fromJson(crypto::fromBase64Url(parts[1]).value_or("")).object();
    const qint64 expires = push.claims.value(QStringLiteral("exp")).toInteger();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    if (header.value(QStringLiteral("alg")).toString() != QLatin1String("ES256") ||
        !signer->verify(QByteArray(parts[0] + '.' + parts[1]), crypto::fromBase64Url(parts[2]).value_or(""))) {
        push.problem = QStringLiteral("the token's signature does not hold");
    } else if (push.claims.value(QStringLiteral("aud")).toString() != origin()) {
        push.problem = QStringLiteral("aud is not this service's origin");
    } else if (expires <= now || expires > now + kMostTokenSeconds) {
        push.problem = QStringLiteral("exp is not within 24 hours");
    } else if (push.headers.value("content-encoding") != "aes128gcm") {
        push.problem = QStringLiteral("not aes128gcm");
    } else {
        push.payload = crypto::decrypt(push.body, device->key, device->authSecret);
        if (!push.payload)
            push.problem = QStringLiteral("the body does not open with the device's key");
    }
}

} // namespace brinmoor::test
