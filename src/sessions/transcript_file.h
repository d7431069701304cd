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
// `count` bytes from `from` on (fewer at the end of the file).
QByteArray read(const QString& path, qint64 from, qint64 count);
// Every line of the file, read once.
QList<QByteArray> allLines(const QString& path);

// A file's size and when it was last written (milliseconds since 1970, UTC), from one
// stat: a list of thousands of sessions asks this of each (QFileInfo's times convert to
// local time, which looks at the time zone file every time). False when it is no file.
struct Stat {
    qint64 size = 0;
    qint64 modifiedMs = 0;
};
bool stat(const QString& path, Stat* result);

// The bytes read by this process so far: the benchmark checks that a list does not read
// the transcripts whole.
qint64 bytesRead();

} // namespace brinmoor::TranscriptFile
