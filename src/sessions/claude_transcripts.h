#pragma once

#include "sessions/desk_session.h"

#include <QHash>

namespace brinmoor::ClaudeTranscripts {

// What claude keeps under its configuration folder (see ClaudeSessionStore): a
// transcript per session, `projects/<folder name>/<session id>.jsonl`, one JSON object a
// line, and a file per running claude, `sessions/<pid>.json`.

// The sessions of a working folder, the most recently written first, at most `limit`.
// Each transcript is read at its start and its end only.
QList<DeskSession> list(const QString& configDirectory, const QString& workingDir, qsizetype limit);
// Session `id` (a UUID) under any working folder; nullopt-like empty `path` when claude has none.
DeskSession find(const QString& configDirectory, const QString& id);
// The sessions a running claude holds, by id: "idle", "busy" or "waiting".
QHash<QString, QString> liveSessions(const QString& configDirectory);
// The turns of a transcript along its current branch, oldest first. Lines of kinds the
// agent does not know are skipped.
QList<SessionItem> items(const QString& path);
// The turns of lines added to a transcript, in the order written.
QList<SessionItem> itemsOfLines(const QList<QByteArray>& lines);

} // namespace brinmoor::ClaudeTranscripts
