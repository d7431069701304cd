#pragma once

#include "push_settings.h"
#include "push_state.h"
#include "web_push_sender.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>

#include <functional>

namespace brinmoor::relay {

// Something that waits for the user: what a push says, which card it opens, and how
// soon and for how long the push service should try to bring it.
struct PushNotice {
    QString kind; // "approval", "proposal", "failed", "answer"
    QString agentId;
    QString projectPath;
    QString taskId;
    QString requestId; // an approval's
    QString tool;      // an approval's
    QByteArray urgency = "normal";
    int ttlSeconds = 86400;
};

// Pushes to the devices subscribed what waits for their user, except to a device that
// shows that very card; and the subscriptions' HTTP endpoints. Every answer is a whole
// HTTP response.
class PushNotices : public QObject {
    Q_OBJECT

public:
    explicit PushNotices(PushSettings settings, QObject* parent = nullptr);

    QByteArray publicKey();
    QByteArray subscribe(const QByteArray& body);
    QByteArray subscriptions() const;
    QByteArray unsubscribe(const QString& id);
    // Pushes a test to the device and answers once its push service has.
    void test(const QString& id, std::function<void(const QByteArray& response)> answer);
    // Answers the tests still waiting for a push service: the relay is stopping.
    void abandonTests();

    // What a client shows, on the device of that push endpoint; an empty card for none.
    void setViewing(const void* client, const QString& endpoint, const QJsonObject& card);
    void forgetClient(const void* client);

    void notify(const PushNotice& notice);

private:
    struct Viewing {
        QString endpoint;
        QJsonObject card;
    };
    // Why pushes cannot go now (no contact, or a key that cannot be used); empty when they can.
    QString offReason();
    bool viewedOn(const QString& endpoint, const PushNotice& notice) const;
    void push(const PushSubscription& subscription, const QString& kind, const QByteArray& payload,
              const QByteArray& urgency, int ttlSeconds, std::function<void(const PushOutcome&)> done);
    void settle(const QString& id, const QString& kind, const PushOutcome& outcome);

    PushSettings m_settings;
    PushState m_state;
    WebPushSender m_sender;
    QHash<const void*, Viewing> m_viewing;
    QHash<quint64, std::function<void(const QByteArray&)>> m_waitingTests;
    quint64 m_tests = 0;
    bool m_offLogged = false;
};

} // namespace brinmoor::relay
