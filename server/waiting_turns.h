#pragma once

#include "http_request.h"

#include <QHash>
#include <QString>

#include <deque>
#include <optional>

namespace brinmoor::relay {

class AuthGuard;
class RelayConnection;

// Requests whose token waits to be judged because their address failed recently: one
// line per address (AuthGuard::keyOf), first come first judged within it. Of the
// addresses whose turn has come, the one with the fewest recent failures goes first (a
// user who mistyped once before one who keeps guessing), then the one whose request has
// waited longest.
class WaitingTurns {
public:
    struct Waiting {
        RelayConnection* connection = nullptr;
        HttpRequest request;
    };

    void add(const QString& key, RelayConnection* connection, const HttpRequest& request);
    // Taken out of its line (answered, gone); none when it was not waiting.
    std::optional<Waiting> remove(const RelayConnection* connection);
    bool hasLine(const QString& key) const { return m_lines.contains(key); }
    bool isEmpty() const { return m_keys.isEmpty(); }
    qsizetype size() const { return m_keys.size(); }

    // The request to judge now, taken out of its line; none when no turn has come.
    std::optional<Waiting> takeNext(const AuthGuard& guard, qint64 nowMs);
    // When the next turn comes; -1 when nothing waits.
    qint64 nextTurn(const AuthGuard& guard, qint64 nowMs) const;

private:
    struct Entry {
        Waiting waiting;
        quint64 arrival;
    };
    QHash<QString, std::deque<Entry>> m_lines;
    QHash<const RelayConnection*, QString> m_keys;
    quint64 m_arrivals = 0;
};

} // namespace brinmoor::relay
