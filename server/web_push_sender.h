#pragma once

#include <QByteArray>
#include <QList>
#include <QNetworkAccessManager>
#include <QObject>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QString>

#include <functional>

class QNetworkReply;

namespace brinmoor::relay {

// One push as it goes to a push service: already sealed and signed.
struct PushDelivery {
    QString subscriptionId; // for the log
    QString endpoint;
    QByteArray body;
    QByteArray authorization;
    int ttlSeconds = 86400;
    QByteArray urgency = "normal";
};

// How it went: the push service's status (0 when it could not be reached) and, when it
// did not take the push, what it said or why it could not be reached.
struct PushOutcome {
    int status = 0;
    QString problem;
    bool delivered() const { return status >= 200 && status < 300; }
    bool gone() const { return status == 404 || status == 410; }
    // The service was busy, failing or out of reach: worth another try.
    bool worthRetrying() const { return status == 0 || status == 429 || status >= 500; }
};

// Posts pushes to push services over HTTPS (the system's authorities, and any extra
// ones), and tries again while a service is busy or out of reach: after its Retry-After,
// or 1, 2, 4 and 8 seconds, five tries in all.
class WebPushSender : public QObject {
    Q_OBJECT

public:
    static constexpr int kTries = 5;
    static constexpr int kAnswerTimeoutMs = 30'000;

    explicit WebPushSender(QList<QSslCertificate> extraAuthorities, QObject* parent = nullptr);

    void send(const PushDelivery& delivery, std::function<void(const PushOutcome&)> done);

private:
    void attempt(const PushDelivery& delivery, int tried, std::function<void(const PushOutcome&)> done);
    void answered(QNetworkReply* reply, const PushDelivery& delivery, int tried,
                  std::function<void(const PushOutcome&)> done);

    QNetworkAccessManager m_network;
    QSslConfiguration m_tls; // the system's authorities and the extra ones
};

} // namespace brinmoor::relay
