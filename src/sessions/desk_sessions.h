#pragma once

#include "config/machine.h"
#include "sessions/desk_session.h"

#include <QJsonArray>
#include <QJsonObject>

namespace brinmoor::DeskSessions {

// Where the tools keep their sessions: claude's configuration folder, codex's home.
struct Stores {
    QString claude;
    QString codex;

    static Stores of(const Environment& env, const QString& home);
};

inline constexpr qsizetype kListLimit = 200;
inline constexpr qsizetype kPageItems = 500;

// The sessions of both tools in a working folder, the most recently written first, at
// most kListLimit, each with whether a process holds it now. Reads files: off the loop.
QList<DeskSession> list(const Stores& stores, const QString& workingDir);
// A session by tool and id, with whether a process holds it now; an empty `path` when
// the tool has none (or the tool is not "claude" or "codex").
DeskSession find(const Stores& stores, const QString& tool, const QString& id);
// Whether a process holds the session now: "idle", "busy", "waiting", or empty.
QString liveState(const Stores& stores, const QString& tool, const QString& id);
QList<SessionItem> items(const DeskSession& session);

// The command that continues the session at the desk.
QString resumeCommand(const DeskSession& session);

// A page of a session's turns: at most kPageItems ending before item `before` (the
// newest when absent), as "sessions.history" carries them.
struct Page {
    QJsonArray items;
    qsizetype first = 0;
    qsizetype total = 0;
};
Page page(const QList<SessionItem>& items, std::optional<qint64> before);

QJsonObject toJson(const DeskSession& session);
QJsonObject toJson(const SessionItem& item);

} // namespace brinmoor::DeskSessions
