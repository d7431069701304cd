#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace brinmoor::TranscriptFile {

// Reads of the tools' JSON-lines files that never take more than they are told: a list
// of sessions reads a few kilobytes of each, however long its transcript has grown.

// The whole lines among the first `maxBytes` bytes (a line cut by the bound is left out,
// unless the file ends there).
QList<QByteArray> headLines(const QString& path, qint64 maxBytes);
// The whole lines among the last `maxBytes` bytes (a line cut by the bound is left out,
// unless the file starts there).
QList<QByteArray> tailLines(const QString& path, qint64 maxBytes);
// Every line of the file, read once.
QList<QByteArray> allLines(const QString& path);

// The bytes read by this process so far: the benchmark checks that a list does not read
// the transcripts whole.
qint64 bytesRead();

} // namespace brinmoor::TranscriptFile
