#include "sessions/transcript_file.h"

#include <QFile>

#include <atomic>
#include <sys/stat.h>

namespace brinmoor::TranscriptFile {

namespace {

std::atomic<qint64> g_bytesRead{0};

QByteArray readSpan(QFile& file, qint64 from, qint64 count)
{
    if (!file.seek(from))
        return {};
    QByteArray data = file.read(count);
    g_bytesRead += data.size();
    return data;
}

QList<QByteArray> splitLines(const QByteArray& data, bool dropFirst, bool dropLast)
{
    QList<QByteArray> lines = data.split('\n');
    if (dropFirst && !lines.isEmpty())
        lines.removeFirst();
    if (dropLast && !lines.isEmpty())
        lines.removeLast();
    lines.removeIf([](const QByteArray& line) { return line.trimmed().isEmpty(); });
    return lines;
}

} // namespace

QList<QByteArray> headLines(const QString& path, qint64 maxBytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const qint64 size = file.size();
    const QByteArray data = readSpan(file, 0, qMin(size, maxBytes));
    return splitLines(data, false, data.size() < size && !data.endsWith('\n'));
}

QList<QByteArray> tailLines(const QString& path, qint64 maxBytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const qint64 size = file.size();
    const qint64 from = qMax<qint64>(0, size - maxBytes);
    // One byte more tells whether the span starts a line.
    const qint64 start = qMax<qint64>(0, from - 1);
    const QByteArray data = readSpan(file, start, size - start);
    const bool startsLine = from == 0 || data.startsWith('\n');
    return splitLines(start == from ? data : data.mid(1), !startsLine, false);
}

QByteArray read(const QString& path, qint64 from, qint64 count)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return readSpan(file, from, count);
}

QList<QByteArray> allLines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return splitLines(readSpan(file, 0, file.size()), false, false);
}

bool stat(const QString& path, Stat* result)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return false;
#if defined(__APPLE__)
    const timespec modified = info.st_mtimespec;
#else
    const timespec modified = info.st_mtim;
#endif
    result->size = info.st_size;
    result->modifiedMs = qint64(modified.tv_sec) * 1000 + modified.tv_nsec / 1000000;
    return true;
}

qint64 bytesRead()
{
    return g_bytesRead.load();
}

} // namespace brinmoor::TranscriptFile
