#pragma once

#include "sessions/desk_session.h"

namespace brinmoor::CodexRollouts {

// What codex keeps under its home ($CODEX_HOME, else ~/.codex): a rollout per thread,
// `sessions/YYYY/MM/DD/rollout-<time>-<thread id>.jsonl`, one JSON object a line, the
// first naming the thread's folder; and, while a process writes a thread,
// `thread-writer-locks/<thread id>.lock`, locked.

// The threads of a working folder, the most recently written first, at most `limit`.
// A rollout's start is read once to learn its folder; codex keeps no count of the
// prompts, so a rollout of this folder is counted once and then only where it grew.
QList<DeskSession> list(const QString& codexHome, const QString& workingDir, qsizetype limit);
// The rollout of thread `id` (a UUID), found by its name alone; empty when codex has none.
QString rolloutOf(const QString& codexHome, const QString& id);
// Thread `id` (a UUID); an empty `path` when codex has none.
DeskSession find(const QString& codexHome, const QString& id);
// Whether a codex process writes the thread now.
bool isWritten(const QString& codexHome, const QString& id);
// The turns of a rollout, oldest first. Lines of kinds the agent does not know are
// skipped.
QList<SessionItem> items(const QString& path);
// The turns of lines added to a rollout, in the order written.
QList<SessionItem> itemsOfLines(const QList<QByteArray>& lines);

} // namespace brinmoor::CodexRollouts
