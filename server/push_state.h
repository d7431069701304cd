#pragma once

#include "ec_key.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <optional>
#include <variant>

namespace brinmoor::relay {

// A device that asked for pushes: where its push service takes them, and its keys.
struct PushSubscription {
    QString id;
    QString endpoint;
    QByteArray devicePublicKey; // the uncompressed P-256 point
    QByteArray authSecret;      // 16 bytes
    QString device;             // what the user calls it
    QDateTime createdAt;
    std::optional<QDateTime> lastPushAt;
    int lastPushStatus = 0; // 0 when the push service could not be reached
};

// What pushes need that outlives the relay, in its state folder: its key (made once, and
// never replaced behind the user's back: that would end every subscription) and the
// devices subscribed. Both files are the owner's alone.
class PushState {
public:
    static constexpr int kMostSubscriptions = 100;

    // Reads the subscriptions kept in `folder`, if any.
    explicit PushState(QString folder);

    // The key, made and kept when there is none yet; otherwise why it cannot be used.
    std::variant<EcKey, QString> key();

    const QList<PushSubscription>& subscriptions() const { return m_subscriptions; }
    const PushSubscription* find(const QString& id) const;
    // Adds the subscription, or replaces the keys and name of the one with its endpoint
    // (which keeps its id); gives the id, or nothing when kMostSubscriptions are kept.
    std::optional<QString> add(const QString& endpoint, const QByteArray& devicePublicKey, const QByteArray& authSecret,
                               const QString& device);
    bool remove(const QString& id);
    void recordPush(const QString& id, int status);

    QString keyPath() const;
    QString subscriptionsPath() const;

private:
    void load();
    void save();
    bool makeFolder(QString* error) const;

    QString m_folder;
    std::optional<EcKey> m_key;
    QList<PushSubscription> m_subscriptions;
};

} // namespace brinmoor::relay
