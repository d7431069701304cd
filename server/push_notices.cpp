#include "push_notices.h"

#include "http_request.h"
#include "relay_log.h"
#include "relay_messages.h"
#include "web_push_crypto.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <utility>

namespace brinmoor::relay {

namespace {

constexpr int kTokenLifetimeSeconds = 12 * 3600;
constexpr qsizetype kMostDeviceName = 64;

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray failure(int status, const QString& text)
{
    return RelayMessages::httpErrorResponse(status, text, {});
}

QString isoTime(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

QString originOf(const QString& endpoint)
{
    const QUrl url(endpoint);
    return url.adjusted(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo)
        .toString(QUrl::FullyEncoded);
}

QByteArray payloadOf(const PushNotice& notice)
{
    QJsonObject payload{{QStringLiteral("kind"), notice.kind}, {QStringLiteral("agentId"), notice.agentId}};
    if (!notice.projectPath.isEmpty()) {
        payload.insert(QStringLiteral("projectPath"), notice.projectPath);
        payload.insert(QStringLiteral("project"), QFileInfo(notice.projectPath).fileName());
    }
    if (!notice.taskId.isEmpty())
        payload.insert(QStringLiteral("taskId"), notice.taskId);
    if (!notice.requestId.isEmpty()) {
        payload.insert(QStringLiteral("requestId"), notice.requestId);
        payload.insert(QStringLiteral("tool"), notice.tool);
    }
    return json(payload);
}

} // namespace

PushNotices::PushNotices(PushSettings settings, QObject* parent)
    : QObject(parent), m_settings(std::move(settings)), m_state(m_settings.stateFolder),
      m_sender(m_settings.extraAuthorities)
{
}

QString PushNotices::offReason()
{
    if (m_settings.contact.isEmpty())
        return QStringLiteral("push is off: set BRINMOOR_PUBLIC_URL to the https address phones use, or "
                              "BRINMOOR_PUSH_CONTACT to a mailto: address");
    const auto key = m_state.key();
    if (const QString* problem = std::get_if<QString>(&key))
        return QStringLiteral("push key cannot be used: ") + *problem;
    return {};
}

QByteArray PushNotices::publicKey()
{
    const QString off = offReason();
    if (!off.isEmpty())
        return failure(503, off);
    const EcKey key = std::get<EcKey>(m_state.key());
    return jsonResponse(
        200, json({{QStringLiteral("publicKey"), QString::fromLatin1(WebPushCrypto::base64Url(key.publicPoint()))}}));
}

QByteArray PushNotices::subscribe(const QByteArray& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return failure(400, QStringLiteral("the body must be a JSON object"));
    const QJsonObject subscription = document.object().value(QStringLiteral("subscription")).toObject();
    const QString endpoint = subscription.value(QStringLiteral("endpoint")).toString();
    const QUrl url(endpoint, QUrl::StrictMode);
    if (!url.isValid() || url.scheme() != QLatin1String("https") || url.host().isEmpty())
        return failure(400, QStringLiteral("subscription.endpoint must be an https URL"));
    const QJsonObject keys = subscription.value(QStringLiteral("keys")).toObject();
    const QByteArray devicePublicKey =
        WebPushCrypto::fromBase64Url(keys.value(QStringLiteral("p256dh")).toString().toLatin1()).value_or(QByteArray());
    if (!EcKey::fromPublic(devicePublicKey))
        return failure(400,
                       QStringLiteral("subscription.keys.p256dh must be a P-256 public key (65 bytes, base64url)"));
    const QByteArray authSecret =
        WebPushCrypto::fromBase64Url(keys.value(QStringLiteral("auth")).toString().toLatin1()).value_or(QByteArray());
    if (authSecret.size() != 16)
        return failure(400, QStringLiteral("subscription.keys.auth must be 16 bytes, base64url"));
    const QString device = document.object().value(QStringLiteral("device")).toString().trimmed();
    if (device.isEmpty() || device.size() > kMostDeviceName)
        return failure(400, QStringLiteral("device must be a name of 1 to 64 characters"));
    const QString off = offReason();
    if (!off.isEmpty())
        return failure(503, off);
    const std::optional<QString> id = m_state.add(endpoint, devicePublicKey, authSecret, device);
    if (!id)
        return failure(
            409, QStringLiteral("%1 devices are subscribed already; remove one").arg(PushState::kMostSubscriptions));
    logEvent("push.subscribed", {{"id", *id}, {"device", device}});
    return jsonResponse(200, json({{QStringLiteral("id"), *id}}));
}

QByteArray PushNotices::subscriptions() const
{
    QJsonArray list;
    for (const PushSubscription& subscription : m_state.subscriptions()) {
        QJsonValue lastPush = QJsonValue::Null;
        if (subscription.lastPushAt) {
            lastPush = QJsonObject{{QStringLiteral("at"), isoTime(*subscription.lastPushAt)},
                                   {QStringLiteral("status"), subscription.lastPushStatus}};
        }
        list.append(QJsonObject{{QStringLiteral("id"), subscription.id},
                                {QStringLiteral("device"), subscription.device},
                                {QStringLiteral("origin"), originOf(subscription.endpoint)},
                                {QStringLiteral("createdAt"), isoTime(subscription.createdAt)},
                                {QStringLiteral("lastPush"), lastPush}});
    }
    return jsonResponse(200, json({{QStringLiteral("subscriptions"), list}}));
}

QByteArray PushNotices::unsubscribe(const QString& id)
{
    const PushSubscription* subscription = m_state.find(id);
    if (!subscription)
        return failure(404, QStringLiteral("no subscription: ") + id);
    const QString device = subscription->device;
    m_state.remove(id);
    logEvent("push.unsubscribed", {{"id", id}, {"device", device}});
    return jsonResponse(200, "{\"ok\":true}");
}

void PushNotices::test(const QString& id, std::function<void(const QByteArray&)> answer)
{
    const PushSubscription* subscription = m_state.find(id);
    if (!subscription) {
        answer(failure(404, QStringLiteral("no subscription: ") + id));
        return;
    }
    const QString off = offReason();
    if (!off.isEmpty()) {
        answer(failure(503, off));
        return;
    }
    const QByteArray payload =
        json({{QStringLiteral("kind"), QStringLiteral("test")}, {QStringLiteral("device"), subscription->device}});
    const quint64 test = ++m_tests;
    m_waitingTests.insert(test, std::move(answer));
    push(*subscription, QStringLiteral("test"), payload, "normal", 60, [this, test](const PushOutcome& outcome) {
        const auto answer = m_waitingTests.take(test);
        if (!answer)
            return; // answered as the relay stopped
        if (outcome.delivered())
            answer(jsonResponse(200, json({{QStringLiteral("status"), outcome.status}})));
        else if (outcome.status == 0)
            answer(failure(502, QStringLiteral("the push service could not be reached: ") + outcome.problem));
        else
            answer(failure(
                502, QStringLiteral("the push service answered %1: %2").arg(outcome.status).arg(outcome.problem)));
    });
}

void PushNotices::abandonTests()
{
    const auto waiting = std::exchange(m_waitingTests, {});
    for (const auto& answer : waiting)
        answer(failure(503, QStringLiteral("the server shut down before the push service answered")));
}

void PushNotices::setViewing(const void* client, const QString& endpoint, const QJsonObject& card)
{
    if (card.isEmpty())
        m_viewing.remove(client);
    else
        m_viewing.insert(client, Viewing{endpoint, card});
}

void PushNotices::forgetClient(const void* client)
{
    m_viewing.remove(client);
}

bool PushNotices::viewedOn(const QString& endpoint, const PushNotice& notice) const
{
    for (const Viewing& viewing : m_viewing) {
        if (viewing.endpoint != endpoint)
            continue;
        const QString requestId = viewing.card.value(QStringLiteral("requestId")).toString();
        const QString taskId = viewing.card.value(QStringLiteral("taskId")).toString();
        if (notice.kind == QLatin1String("approval") ? requestId == notice.requestId && !requestId.isEmpty()
                                                     : taskId == notice.taskId && !taskId.isEmpty())
            return true;
    }
    return false;
}

void PushNotices::notify(const PushNotice& notice)
{
    if (m_state.subscriptions().isEmpty())
        return;
    const QString off = offReason();
    if (!off.isEmpty()) {
        if (!m_offLogged)
            logEvent("push.off", {{"reason", off}});
        m_offLogged = true;
        return;
    }
    const QByteArray payload = payloadOf(notice);
    for (const PushSubscription& subscription : m_state.subscriptions()) {
        if (viewedOn(subscription.endpoint, notice)) {
            logEvent("push.skipped",
                     {{"id", subscription.id}, {"kind", notice.kind}, {"reason", QStringLiteral("viewing")}});
            continue;
        }
        push(subscription, notice.kind, payload, notice.urgency, notice.ttlSeconds, {});
    }
}

void PushNotices::push(const PushSubscription& subscription, const QString& kind, const QByteArray& payload,
                       const QByteArray& urgency, int ttlSeconds, std::function<void(const PushOutcome&)> done)
{
    const EcKey key = std::get<EcKey>(m_state.key());
    PushDelivery delivery;
    delivery.subscriptionId = subscription.id;
    delivery.endpoint = subscription.endpoint;
    delivery.body = WebPushCrypto::encrypt(payload, subscription.devicePublicKey, subscription.authSecret);
    delivery.authorization =
        WebPushCrypto::vapidAuthorization(key, originOf(subscription.endpoint), m_settings.contact,
                                          QDateTime::currentSecsSinceEpoch() + kTokenLifetimeSeconds);
    delivery.urgency = urgency;
    delivery.ttlSeconds = ttlSeconds;
    const QString id = subscription.id;
    m_sender.send(delivery, [this, id, kind, done = std::move(done)](const PushOutcome& outcome) {
        settle(id, kind, outcome);
        if (done)
            done(outcome);
    });
}

void PushNotices::settle(const QString& id, const QString& kind, const PushOutcome& outcome)
{
    const QString status = QString::number(outcome.status);
    if (outcome.delivered()) {
        m_state.recordPush(id, outcome.status);
        logEvent("push.sent", {{"id", id}, {"kind", kind}, {"status", status}});
    } else if (outcome.gone()) {
        const PushSubscription* subscription = m_state.find(id);
        const QString device = subscription ? subscription->device : QString();
        if (m_state.remove(id))
            logEvent("push.gone", {{"id", id}, {"device", device}, {"status", status}});
    } else {
        m_state.recordPush(id, outcome.status);
        logEvent("push.failed", {{"id", id},
                                 {"status", status},
                                 {"reason", outcome.worthRetrying()
                                                ? QStringLiteral("gave up after %1 tries").arg(WebPushSender::kTries)
                                                : outcome.problem}});
    }
}

} // namespace brinmoor::relay
