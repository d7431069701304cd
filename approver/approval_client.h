#pragma once

#include "tls/tls_trust.h"

#include <QByteArray>
#include <QJsonValue>
#include <QNetworkAccessManager>
#include <QObject>
#include <QString>

#include <functional>
#include <map>

class QNetworkReply;

namespace brinmoor::approver {

struct ApprovalSettings {
    QString serverURL;
    QString token;
    QString taskId;
    int waitMs = 630'000; // a little longer than the server holds a request
    // Authorities to trust besides the system's (BRINMOOR_TLS_CA), and the certificate of
    // a server the agent pins (BRINMOOR_TLS_PINNED_CERT), trusted the way the agent
    // trusts: a pinned server by its certificate alone, whatever name it is reached by,
    // and then no authority counts.
    TlsTrust::ServerTrust trust;
    // Why no request can be made (an unreadable token or certificate file); empty when
    // one can.
    QString unavailable;
};

ApprovalSettings settingsFromEnvironment();

// The permission decision text for one tool use: {"behavior":"allow","updatedInput":…}
// or {"behavior":"deny","message":…}.
QByteArray denyDecision(const QString& message);

// Asks the relay server for the phone's decision. It fails closed: whatever goes
// wrong, the answer is a deny whose message says what.
class ApprovalClient : public QObject {
    Q_OBJECT

public:
    explicit ApprovalClient(ApprovalSettings settings, QObject* parent = nullptr);
    ~ApprovalClient() override;

    using Answer = std::function<void(const QByteArray& decision)>;
    // Starts one request; `answer` is called once, later, unless it is cancelled.
    void request(qint64 key, const QString& toolName, const QJsonValue& toolInput, const QString& toolUseId,
                 Answer answer);
    void cancel(qint64 key);
    void cancelAll();
    bool isIdle() const { return m_pending.empty(); }

private:
    struct Pending {
        QNetworkReply* reply;
        Answer answer;
        bool timedOut = false;
    };
    void finished(qint64 key);

    ApprovalSettings m_settings;
    QNetworkAccessManager m_network;
    std::map<qint64, Pending> m_pending;
};

} // namespace brinmoor::approver
