#pragma once

#include "protocol/messages.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace brinmoor {

// The folders directly under the repository root, and under its "proj" folder (where a
// project's name is also looked up), that look like projects. This blocks on the file
// system: call it off the event loop.
namespace ProjectFinder {

// What marks a folder as a project, in the order a project's markers are listed: a name
// the folder holds, or "*.ext" for any name with that ending.
const QStringList& markers();

// The markers a folder holds, in the order of markers(); empty for none.
QStringList markersOf(const QString& folder);

// The projects, sorted by name (letter case aside), at most `limit`: paths relative to
// the root ("App", "proj/Tool"). Hidden folders are skipped, and so is a link that leads
// out of the root; a folder reached through a link too is listed once, where it is.
QList<Messages::FoundProject> find(const QString& repoRoot, qsizetype limit = 500);

} // namespace ProjectFinder

} // namespace brinmoor
