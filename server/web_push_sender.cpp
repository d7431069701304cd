#include "web_push_sender.h"

#include "relay_log.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QTimer>

#include <algorithm>

namespace brinmoor::relay {

namespace {

constexpr int kMostRetryAfterSeconds = 600;
constexpr qsizetype kProblemCharacters = 200;

} // namespace

WebPushSender::WebPushSender(QList<QSslCertificate> extraAuthorities, QObject* parent)
    : QObject(parent), m_tls(QSslConfiguration::defaultConfiguration())
{
    if (!extraAuthorities.isEmpty())
        m_tls.addCaCertificates(extraAuthorities);
}

void WebPushSender::send(const PushDelivery& delivery, std::function<void(const PushOutcome&)> done)
{
    attempt(delivery, 0, std::move(done));
}

void WebPushSender::attempt(const PushDelivery& delivery, int tried, std::function<void(const PushOutcome&)> done)
{
    QNetworkRequest request{QUrl(delivery.endpoint)};
    request.setSslConfiguration(m_tls);
    request.setTransferTimeout(kAnswerTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/octet-stream"));
    request.setRawHeader("Content-Encoding", "aes128gcm");
    request.setRawHeader("TTL", QByteArray::number(delivery.ttlSeconds));
    request.setRawHeader("Urgency", delivery.urgency);
    request.setRawHeader("Authorization", delivery.authorization);
    QNetworkReply* reply = m_network.post(request, delivery.body);
    connect(reply, &QNetworkReply::finished, this, [this, reply, delivery, tried, done = std::move(done)]() mutable {
        answered(reply, delivery, tried + 1, std::move(done));
    });
}

void WebPushSender::answered(QNetworkReply* reply, const PushDelivery& delivery, int tried,
                             std::function<void(const PushOutcome&)> done)
{
    reply->deleteLater();
    PushOutcome outcome;
    outcome.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (outcome.status == 0)
        outcome.problem = reply->errorString();
    else if (!outcome.delivered())
        outcome.problem = QString::fromUtf8(reply->read(4 * kProblemCharacters)).left(kProblemCharacters).trimmed();
    if (!outcome.worthRetrying() || tried >= kTries) {
        done(outcome);
        return;
    }
    int seconds = 1 << (tried - 1);
    bool given = false;
    const int retryAfter = reply->rawHeader("Retry-After").trimmed().toInt(&given);
    if (given && retryAfter >= 0)
        seconds = std::min(retryAfter, kMostRetryAfterSeconds);
    logEvent("push.retry", {{"id", delivery.subscriptionId},
                            {"status", QString::number(outcome.status)},
                            {"seconds", QString::number(seconds)}});
    QTimer::singleShot(seconds * 1000, this, [this, delivery, tried, done = std::move(done)]() mutable {
        attempt(delivery, tried, std::move(done));
    });
}

} // namespace brinmoor::relay
