#pragma once

#include "ec_key.h"
#include "test_certificate_authority.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QQueue>
#include <QSslServer>
#include <QString>

#include <optional>

namespace brinmoor::test {

// A push service on 127.0.0.1 over HTTPS, as browsers' push services take pushes from an
// application server: it hands out devices (an endpoint with the device's keys), and
// checks every push it is given as a device and the service would: the VAPID token (ES256
// under the key it names, "aud" its own origin, "exp" within 24 hours, "sub" the relay's
// contact) and the body, which it opens with the device's private key.
class PushService : public QObject {
    Q_OBJECT

public:
    // A device subscribed to this service.
    struct Device {
        QString endpoint;
        relay::EcKey key;
        QByteArray authSecret;
        // The browser's PushSubscription.toJSON().
        QJsonObject subscription() const;
    };
    // A push as it arrived.
    struct Push {
        QString path;
        QHash<QByteArray, QByteArray> headers; // names lower-cased
        QByteArray body;
        QString problem;                   // what was wrong with it; empty when nothing was
        QJsonObject claims;                // the token's
        QByteArray key;                    // the key the token names (base64url)
        std::optional<QByteArray> payload; // opened with the device's key
        int answeredStatus = 0;
    };

    explicit PushService(QObject* parent = nullptr);
    ~PushService() override;
    bool listen();
    QString error() const { return m_error; }
    QString origin() const;
    // The authority that issued its certificate, for BRINMOOR_PUSH_CA.
    QString authorityPath() const { return m_authority.rootCertificate(); }

    Device newDevice();
    // The statuses the next pushes get, in turn (then 201); with a Retry-After header when
    // given.
    void answerNext(int status, const QByteArray& retryAfter = {});

    const QList<Push>& pushes() const { return m_pushes; }
    // Waits for the count of pushes to reach `count`.
    bool waitForPushes(int count, int timeoutMs = 15000);

private:
    void readFrom(QSslSocket* socket);
    void check(Push& push);

    relay::TestCertificateAuthority m_authority{QStringLiteral("Push Service Test CA")};
    QSslServer m_server;
    QString m_error;
    QHash<QString, Device> m_devices; // by path
    QQueue<QPair<int, QByteArray>> m_answers;
    QList<Push> m_pushes;
    QHash<QSslSocket*, QByteArray> m_received;
    int m_devicesMade = 0;
};

} // namespace brinmoor::test
