#include "permission_requests.h"

#include "http_request.h"
#include "relay_connection.h"

#include <QTimer>
#include <QUuid>

#include <algorithm>

namespace brinmoor::relay {

PermissionRequests::PermissionRequests(int timeoutMs, QObject* parent) : QObject(parent), m_timeoutMs(timeoutMs) {}

PermissionRequests::~PermissionRequests() = default;

QString PermissionRequests::add(PermissionRequest request, RelayConnection* waiting)
{
    request.requestId = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    const QString requestId = request.requestId;
    auto timer = std::make_unique<QTimer>();
    timer->setSingleShot(true);
    connect(timer.get(), &QTimer::timeout, this, [this, requestId] {
        resolve(requestId, RelayMessages::deny(QStringLiteral("no decision within %1 seconds").arg(m_timeoutMs / 1000)),
                QStringLiteral("deny"), QStringLiteral("timeout"));
    });
    timer->start(m_timeoutMs);
    m_entries.emplace(requestId, Entry{++m_sequence, std::move(request), waiting, std::move(timer)});
    return requestId;
}

bool PermissionRequests::contains(const QString& requestId) const
{
    return m_entries.count(requestId) > 0;
}

void PermissionRequests::decide(const QString& requestId, bool allow, const QString& message,
                                const QJsonValue& updatedInput)
{
    const auto it = m_entries.find(requestId);
    if (it == m_entries.end())
        return;
    if (allow) {
        const QJsonValue input = updatedInput.isObject() ? updatedInput : it->second.request.toolInput;
        resolve(requestId, RelayMessages::allow(input), QStringLiteral("allow"), QStringLiteral("client"));
    } else {
        resolve(requestId, RelayMessages::deny(message.isEmpty() ? QStringLiteral("denied by the user") : message),
                QStringLiteral("deny"), QStringLiteral("client"));
    }
}

void PermissionRequests::withdraw(RelayConnection* waiting)
{
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (it->second.waiting == waiting) {
            // Nobody is left to answer; the request just ends.
            it->second.waiting = nullptr;
            resolve(it->first, QByteArray(), QStringLiteral("deny"), QStringLiteral("withdrawn"));
            return;
        }
    }
}

void PermissionRequests::endTask(const QString& taskId)
{
    denyWhere([&](const PermissionRequest& request) { return request.taskId == taskId; },
              QStringLiteral("the task ended before a decision"), QStringLiteral("task ended"));
}

void PermissionRequests::endAll(const QString& message, const QString& reason)
{
    denyWhere([](const PermissionRequest&) { return true; }, message, reason);
}

void PermissionRequests::denyWhere(const std::function<bool(const PermissionRequest&)>& match, const QString& message,
                                   const QString& reason)
{
    QStringList ended;
    for (const auto& [requestId, entry] : m_entries) {
        if (match(entry.request))
            ended.append(requestId);
    }
    for (const QString& requestId : ended)
        resolve(requestId, RelayMessages::deny(message), QStringLiteral("deny"), reason);
}

QList<PermissionRequest> PermissionRequests::pending() const
{
    std::vector<const Entry*> entries;
    for (const auto& item : m_entries)
        entries.push_back(&item.second);
    std::sort(entries.begin(), entries.end(), [](const Entry* a, const Entry* b) { return a->sequence < b->sequence; });
    QList<PermissionRequest> list;
    for (const Entry* entry : entries)
        list.append(entry->request);
    return list;
}

std::optional<PermissionRequests::Outcome> PermissionRequests::outcome(const QString& requestId) const
{
    for (auto it = m_ended.crbegin(); it != m_ended.crend(); ++it) {
        if (it->first == requestId)
            return it->second;
    }
    return std::nullopt;
}

void PermissionRequests::resolve(const QString& requestId, const QByteArray& answer, const QString& decision,
                                 const QString& reason)
{
    const auto it = m_entries.find(requestId);
    if (it == m_entries.end())
        return;
    RelayConnection* waiting = it->second.waiting;
    const PermissionRequest request = std::move(it->second.request);
    // The timer may be the one calling us.
    it->second.timer->stop();
    it->second.timer.release()->deleteLater();
    m_entries.erase(it);
    m_ended.append({requestId, Outcome{decision, reason}});
    if (m_ended.size() > kEndedKept)
        m_ended.removeFirst();
    if (waiting)
        waiting->respond(jsonResponse(200, answer));
    if (onResolved)
        onResolved(request, decision, reason);
}

} // namespace brinmoor::relay
