#pragma once

#include "relay_messages.h"

#include <QObject>

#include <functional>
#include <map>
#include <memory>
#include <optional>

class QTimer;

namespace brinmoor::relay {

class RelayConnection;

// Tool uses waiting for the phone: each holds the approval tool's HTTP request open
// until a client decides, its time runs out, its task ends or the tool goes away.
class PermissionRequests : public QObject {
    Q_OBJECT

public:
    explicit PermissionRequests(int timeoutMs, QObject* parent = nullptr);
    ~PermissionRequests() override;

    // Called for every request that ends, with "allow" or "deny" and why
    // ("client", "timeout", "task ended", "withdrawn", or endAll's).
    std::function<void(const PermissionRequest&, const QString& decision, const QString& reason)> onResolved;

    // Holds `waiting` until the request is resolved; gives the new request id.
    QString add(PermissionRequest request, RelayConnection* waiting);
    bool contains(const QString& requestId) const;
    // A client's answer. An allow without updatedInput keeps the tool's input.
    void decide(const QString& requestId, bool allow, const QString& message, const QJsonValue& updatedInput);
    // The held connection went away.
    void withdraw(RelayConnection* waiting);
    // Every request of this task is denied.
    void endTask(const QString& taskId);
    // Every request is denied with this message, resolved for this reason.
    void endAll(const QString& message, const QString& reason);

    // How a request that ended ended, for the last kEndedKept of them.
    struct Outcome {
        QString decision;
        QString reason;
    };
    static constexpr int kEndedKept = 1024;
    std::optional<Outcome> outcome(const QString& requestId) const;

    // Unresolved requests, oldest first.
    QList<PermissionRequest> pending() const;
    int timeoutSeconds() const { return m_timeoutMs / 1000; }

private:
    struct Entry {
        quint64 sequence;
        PermissionRequest request;
        RelayConnection* waiting;
        std::unique_ptr<QTimer> timer;
    };
    void denyWhere(const std::function<bool(const PermissionRequest&)>& match, const QString& message,
                   const QString& reason);
    void resolve(const QString& requestId, const QByteArray& answer, const QString& decision, const QString& reason);

    int m_timeoutMs;
    quint64 m_sequence = 0;
    std::map<QString, Entry> m_entries;
    QList<QPair<QString, Outcome>> m_ended; // oldest first
};

} // namespace brinmoor::relay
