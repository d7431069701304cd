#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace brinmoor::test {

// Where the programs of this build live.
QString binDir();

// A folder that holds a project as the agent recognises one (a Package.swift, or an
// Xcode project at the top level), created with its parents.
QString makeProject(const QString& path, bool xcode = false);

// Writes a file (parents created), returning its path.
QString writeFile(const QString& path, const QByteArray& content = QByteArray());

// The body of a file, empty when unreadable.
QByteArray readFile(const QString& path);

// A file's permission bits, as in `stat` (e.g. 0600).
int fileMode(const QString& path);

} // namespace brinmoor::test

namespace brinmoor::test {

// The folder holding the fake `claude` and `codex`.
QString fakeToolsDir();

// The arguments the fake tool received on its N-th call (from 1).
QStringList fakeToolArguments(const QString& fakeDir, const QString& tool, int call);

} // namespace brinmoor::test
