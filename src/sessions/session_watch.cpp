#include "sessions/session_watch.h"

#include "sessions/claude_transcripts.h"
#include "sessions/codex_rollouts.h"
#include "sessions/transcript_file.h"

#include <QtConcurrent/QtConcurrentRun>

namespace brinmoor {

namespace {

// Lines larger than this wait for the next change (claude writes a line in one go).
constexpr qint64 kMostAtOnce = 16 * 1024 * 1024;

} // namespace

SessionWatch::SessionWatch(DeskSession session, qint64 from, QObject* parent)
    : QObject(parent), m_session(std::move(session)), m_offset(from)
{
    m_file.addPath(m_session.path);
    connect(&m_file, &QFileSystemWatcher::fileChanged, this, [this] {
        // A tool that replaces the file (rather than adding to it) is followed too.
        if (!m_file.files().contains(m_session.path))
            m_file.addPath(m_session.path);
        readMore();
    });
    connect(&m_read, &QFutureWatcher<Read>::finished, this, &SessionWatch::onRead);
}

void SessionWatch::readMore()
{
    if (m_read.isRunning()) {
        m_again = true;
        return;
    }
    const QString path = m_session.path;
    const QString tool = m_session.tool;
    const qint64 from = m_offset;
    m_read.setFuture(QtConcurrent::run([path, tool, from] {
        Read read{{}, from};
        TranscriptFile::Stat stat;
        if (!TranscriptFile::stat(path, &stat))
            return read;
        if (stat.size < from) { // the file was replaced by a shorter one: from its start
            read.end = 0;
            return read;
        }
        const QByteArray added = TranscriptFile::read(path, from, qMin(stat.size - from, kMostAtOnce));
        const qsizetype whole = added.lastIndexOf('\n') + 1;
        if (whole == 0)
            return read;
        const QList<QByteArray> lines = added.first(whole).split('\n');
        read.items = tool == QLatin1String("codex") ? CodexRollouts::itemsOfLines(lines)
                                                    : ClaudeTranscripts::itemsOfLines(lines);
        read.end = from + whole;
        return read;
    }));
}

void SessionWatch::onRead()
{
    const Read read = m_read.result();
    const bool rewound = read.end < m_offset;
    m_offset = read.end;
    if (!read.items.isEmpty())
        Q_EMIT grew(read.items);
    if (std::exchange(m_again, false) || rewound)
        readMore();
}

} // namespace brinmoor
