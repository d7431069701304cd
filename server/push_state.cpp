#include "push_state.h"

#include "relay_log.h"
#include "web_push_crypto.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace brinmoor::relay {

namespace {

QString isoTime(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

// Written beside the file and renamed over it, so that a reader sees the old file or the
// new one, and made owner-only from its creation on.
bool writeOwnerOnly(const QString& path, const QByteArray& data, QString* error)
{
    const QByteArray target = QFile::encodeName(path);
    const QByteArray temporary = target + ".new";
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    qsizetype written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + written, size_t(data.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        written += n;
    }
    const int writeError = written == data.size() ? 0 : errno;
    const bool closed = ::close(fd) == 0;
    if (writeError || !closed || ::rename(temporary.constData(), target.constData()) != 0) {
        *error = QString::fromLocal8Bit(std::strerror(writeError ? writeError : errno));
        ::unlink(temporary.constData());
        return false;
    }
    return true;
}

} // namespace

PushState::PushState(QString folder) : m_folder(std::move(folder))
{
    load();
}

QString PushState::keyPath() const
{
    return m_folder + QStringLiteral("/push-key.pem");
}

QString PushState::subscriptionsPath() const
{
    return m_folder + QStringLiteral("/push-subscriptions.json");
}

bool PushState::makeFolder(QString* error) const
{
    if (QFileInfo(m_folder).isDir())
        return true; // a folder the user chose keeps its permissions; the files are owner-only
    if (!QDir().mkpath(m_folder)) {
        *error = QStringLiteral("cannot make the folder");
        return false;
    }
    QFile::setPermissions(m_folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    return true;
}

std::variant<EcKey, QString> PushState::key()
{
    if (m_key)
        return *m_key;
    const QString path = keyPath();
    QFile file(path);
    if (file.exists()) {
        if (!file.open(QIODevice::ReadOnly))
            return path + QStringLiteral(": ") + file.errorString();
        const std::optional<EcKey> kept = EcKey::fromPem(file.readAll());
        if (!kept)
            return path + QStringLiteral(": it holds no P-256 private key");
        m_key = kept;
        return *m_key;
    }
    QString error;
    const EcKey made = EcKey::generate();
    if (!makeFolder(&error) || !writeOwnerOnly(path, made.privatePem(), &error))
        return path + QStringLiteral(": ") + error;
    logEvent("push.key.created", {{"path", path}});
    m_key = made;
    return *m_key;
}

const PushSubscription* PushState::find(const QString& id) const
{
    for (const PushSubscription& subscription : m_subscriptions) {
        if (subscription.id == id)
            return &subscription;
    }
    return nullptr;
}

std::optional<QString> PushState::add(const QString& endpoint, const QByteArray& devicePublicKey,
                                      const QByteArray& authSecret, const QString& device)
{
    for (PushSubscription& subscription : m_subscriptions) {
        if (subscription.endpoint == endpoint) {
            subscription.devicePublicKey = devicePublicKey;
            subscription.authSecret = authSecret;
            subscription.device = device;
            save();
            return subscription.id;
        }
    }
    if (m_subscriptions.size() >= kMostSubscriptions)
        return std::nullopt;
    // Named by its endpoint, which the id does not give away.
    const QString id = QString::fromLatin1(
        WebPushCrypto::base64Url(QCryptographicHash::hash(endpoint.toUtf8(), QCryptographicHash::Sha256).left(12)));
    m_subscriptions.append(
        PushSubscription{id, endpoint, devicePublicKey, authSecret, device, QDateTime::currentDateTimeUtc(), {}, 0});
    save();
    return id;
}

bool PushState::remove(const QString& id)
{
    const qsizetype removed =
        m_subscriptions.removeIf([&](const PushSubscription& subscription) { return subscription.id == id; });
    if (removed)
        save();
    return removed > 0;
}

void PushState::recordPush(const QString& id, int status)
{
    for (PushSubscription& subscription : m_subscriptions) {
        if (subscription.id == id) {
            subscription.lastPushAt = QDateTime::currentDateTimeUtc();
            subscription.lastPushStatus = status;
            save();
            return;
        }
    }
}

void PushState::load()
{
    QFile file(subscriptionsPath());
    if (!file.exists())
        return;
    if (!file.open(QIODevice::ReadOnly)) {
        logEvent("push.state.unreadable", {{"path", file.fileName()}, {"reason", file.errorString()}});
        return;
    }
    const QJsonArray kept =
        QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("subscriptions")).toArray();
    for (const QJsonValue& value : kept) {
        const QJsonObject entry = value.toObject();
        PushSubscription subscription;
        subscription.id = entry.value(QStringLiteral("id")).toString();
        subscription.endpoint = entry.value(QStringLiteral("endpoint")).toString();
        subscription.devicePublicKey =
            WebPushCrypto::fromBase64Url(entry.value(QStringLiteral("p256dh")).toString().toLatin1())
                .value_or(QByteArray());
        subscription.authSecret =
            WebPushCrypto::fromBase64Url(entry.value(QStringLiteral("auth")).toString().toLatin1())
                .value_or(QByteArray());
        subscription.device = entry.value(QStringLiteral("device")).toString();
        subscription.createdAt =
            QDateTime::fromString(entry.value(QStringLiteral("createdAt")).toString(), Qt::ISODate);
        const QJsonObject lastPush = entry.value(QStringLiteral("lastPush")).toObject();
        if (!lastPush.isEmpty()) {
            subscription.lastPushAt =
                QDateTime::fromString(lastPush.value(QStringLiteral("at")).toString(), Qt::ISODate);
            subscription.lastPushStatus = lastPush.value(QStringLiteral("status")).toInt();
        }
        if (!subscription.id.isEmpty() && !subscription.endpoint.isEmpty() && subscription.authSecret.size() == 16 &&
            EcKey::fromPublic(subscription.devicePublicKey))
            m_subscriptions.append(subscription);
    }
}

void PushState::save()
{
    QJsonArray entries;
    for (const PushSubscription& subscription : m_subscriptions) {
        QJsonObject entry{
            {QStringLiteral("id"), subscription.id},
            {QStringLiteral("endpoint"), subscription.endpoint},
            {QStringLiteral("p256dh"), QString::fromLatin1(WebPushCrypto::base64Url(subscription.devicePublicKey))},
            {QStringLiteral("auth"), QString::fromLatin1(WebPushCrypto::base64Url(subscription.authSecret))},
            {QStringLiteral("device"), subscription.device},
            {QStringLiteral("createdAt"), isoTime(subscription.createdAt)},
        };
        if (subscription.lastPushAt) {
            entry.insert(QStringLiteral("lastPush"),
                         QJsonObject{{QStringLiteral("at"), isoTime(*subscription.lastPushAt)},
                                     {QStringLiteral("status"), subscription.lastPushStatus}});
        }
        entries.append(entry);
    }
    QString error;
    const QByteArray data = QJsonDocument(QJsonObject{{QStringLiteral("subscriptions"), entries}}).toJson();
    if (!makeFolder(&error) || !writeOwnerOnly(subscriptionsPath(), data, &error))
        logEvent("push.state.unwritable", {{"path", subscriptionsPath()}, {"reason", error}});
}

} // namespace brinmoor::relay
