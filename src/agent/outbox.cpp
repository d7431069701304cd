#include "agent/outbox.h"

#include "protocol/messages.h"

#include <QJsonDocument>
#include <QStringEncoder>

namespace brinmoor {

void WrittenMessages::append(qint64 seq, QStringView text)
{
    if (m_sizes.empty())
        m_firstSeq = seq;
    QStringEncoder encoder(QStringEncoder::Utf8);
    const qsizetype most = encoder.requiredSpace(text.size());
    if (m_blocks.empty() || m_blocks.back().size() + most > m_blocks.back().capacity()) {
        m_blocks.emplace_back();
        m_blocks.back().reserve(std::max(kBlockBytes, most));
    }
    QByteArray& block = m_blocks.back();
    const qsizetype start = block.size();
    // Within the capacity reserved: no reallocation.
    block.resize(start + most);
    char* end = encoder.appendToBuffer(block.data() + start, text);
    block.resize(end - block.constData());
    const qint32 size = qint32(block.size() - start);
    m_sizes.push_back(size);
    m_bytes += size;
}

void WrittenMessages::confirm(qint64 seq)
{
    while (m_confirmedCount < qsizetype(m_sizes.size()) && m_firstSeq + m_confirmedCount <= seq) {
        m_confirmedBytes += m_sizes[size_t(m_confirmedCount)];
        ++m_confirmedCount;
    }
    while (m_confirmedBytes > m_confirmedKept)
        dropOldest();
}

void WrittenMessages::dropOldest()
{
    if (m_sizes.empty())
        return;
    const qint32 size = m_sizes.front();
    m_sizes.pop_front();
    if (m_confirmedCount > 0) {
        --m_confirmedCount;
        m_confirmedBytes -= size;
    }
    ++m_firstSeq;
    m_bytes -= size;
    m_begin += size;
    if (m_begin >= m_blocks.front().size()) {
        m_blocks.pop_front();
        m_begin = 0;
    }
}

void WrittenMessages::clear()
{
    m_blocks.clear();
    m_sizes.clear();
    m_begin = 0;
    m_bytes = 0;
    m_confirmedCount = 0;
    m_confirmedBytes = 0;
}

void WrittenMessages::forEachFrom(qint64 from, const std::function<void(const QString&)>& visit) const
{
    auto block = m_blocks.begin();
    qsizetype at = m_begin;
    qint64 seq = m_firstSeq;
    for (const qint32 size : m_sizes) {
        if (at >= block->size()) {
            ++block;
            at = 0;
        }
        if (seq++ >= from)
            visit(QString::fromUtf8(block->constData() + at, size));
        at += size;
    }
}

Outbox::Outbox(qint64 firstSeq) : m_firstSeq(firstSeq), m_nextSeq(firstSeq) {}

QString Outbox::droppedLinesText(qint64 count)
{
    return QStringLiteral("\u2026 %1 earlier %2 dropped while the server could not be reached (at most 16 MiB of a "
                          "task's output waits)")
        .arg(count)
        .arg(count == 1 ? QStringLiteral("line") : QStringLiteral("lines"));
}

qsizetype Outbox::unsentCount() const
{
    return qsizetype(m_unsent.size()) - m_droppedCount;
}

qint64 Outbox::taskBytes(const QString& taskId) const
{
    const auto share = m_tasks.constFind(taskId);
    return share == m_tasks.constEnd() ? 0 : share->bytes;
}

void Outbox::add(const QString& text, const QString& taskId, Kind kind)
{
    if (isOpen()) {
        write(text);
        return;
    }
    const bool waiting = m_state == State::Waiting;
    // With no socket, only a server that confirms would hear it, and terminal output
    // has the session's replay.
    if (m_state == State::Closed && (!m_keep || kind == Kind::TerminalOutput))
        return;
    Entry entry{text, taskId, kind, false, waiting};
    if (!taskId.isEmpty())
        m_tasks[taskId].bytes += size(entry);
    const quint64 id = m_unsentBase + m_unsent.size();
    m_unsent.push_back(std::move(entry));
    if (taskId.isEmpty())
        return;
    if (kind == Kind::TaskLog)
        m_tasks[taskId].lines.push_back(id);
    keepWithinBound(taskId);
}

void Outbox::keepWithinBound(const QString& taskId)
{
    TaskShare& share = m_tasks[taskId];
    while (share.bytes > kTaskBytes && !share.lines.empty()) {
        const quint64 id = share.lines.front();
        share.lines.pop_front();
        Entry& line = unsent(id);
        share.bytes -= size(line);
        ++share.dropped;
        // The oldest dropped line becomes the notice, which stands where they were.
        if (share.notice == 0) {
            share.notice = id + 1;
            line.text = Messages::taskLogText(taskId, droppedLinesText(share.dropped));
            share.bytes += size(line);
            continue;
        }
        line.text = QString();
        line.dropped = true;
        ++m_droppedCount;
        Entry& notice = unsent(share.notice - 1);
        share.bytes -= size(notice);
        notice.text = Messages::taskLogText(taskId, droppedLinesText(share.dropped));
        share.bytes += size(notice);
    }
}

bool Outbox::takeUnsent(Entry& entry)
{
    entry = std::move(m_unsent.front());
    const quint64 id = m_unsentBase++;
    m_unsent.pop_front();
    if (entry.dropped) {
        --m_droppedCount;
        return false;
    }
    if (!entry.taskId.isEmpty()) {
        TaskShare& share = m_tasks[entry.taskId];
        if (!share.lines.empty() && share.lines.front() == id)
            share.lines.pop_front();
        if (share.notice == id + 1) {
            share.notice = 0;
            share.dropped = 0;
        }
    }
    return true;
}

void Outbox::wait()
{
    m_state = State::Waiting;
    m_write = nullptr;
}

void Outbox::open(qint64 serverHas, Writer writer, bool confirms)
{
    acknowledge(serverHas);
    // The server has messages of this agent id beyond ours (a clock set back, another
    // agent under the same id): the seqs go on above them.
    if (serverHas >= m_nextSeq) {
        m_firstSeq = serverHas + 1;
        m_nextSeq = m_firstSeq;
    }
    m_keep = confirms;
    if (!confirms)
        m_written.clear();
    m_state = State::Numbered;
    m_write = std::move(writer);
    // What the server lacks of what is kept: the unconfirmed messages, and confirmed ones
    // it no longer has (it was restarted).
    const qint64 next = !m_written.isEmpty() && m_written.lastSeq() > serverHas
                            ? std::max(serverHas + 1, m_written.firstSeq())
                            : m_nextSeq;
    m_write(QString::fromUtf8(QJsonDocument(Messages::agentStream(m_firstSeq, next)).toJson(QJsonDocument::Compact)));
    m_written.forEachFrom(next, m_write);
    while (!m_unsent.empty() && m_state == State::Numbered) {
        Entry entry;
        if (takeUnsent(entry)) {
            forget(entry);
            write(entry.text);
        }
    }
}

void Outbox::openPlain(Writer writer)
{
    m_keep = false;
    m_written.clear();
    m_state = State::Plain;
    m_write = std::move(writer);
    // What waited from before this socket was for a server that confirms; what was said
    // since it opened is this server's, once.
    while (!m_unsent.empty() && m_state == State::Plain) {
        Entry entry;
        if (takeUnsent(entry) && entry.saidWhileOpen)
            m_write(entry.text);
    }
    m_tasks.clear();
}

void Outbox::close()
{
    m_write = nullptr;
    if (m_state == State::Waiting && !m_keep) {
        // Said for a socket whose server never said what it is: no server that
        // confirms has been heard of, so nothing waits for one.
        while (!m_unsent.empty()) {
            Entry entry;
            takeUnsent(entry);
        }
        m_tasks.clear();
    }
    m_state = State::Closed;
}

void Outbox::write(const QString& text)
{
    if (m_state == State::Numbered) {
        const qint64 seq = m_nextSeq++;
        if (m_keep) {
            m_written.append(seq, text);
            while (m_written.unconfirmedBytes() > kUnconfirmedBytes)
                m_written.dropOldest();
        }
    }
    m_write(text);
}

void Outbox::acknowledge(qint64 seq)
{
    m_written.confirm(seq);
}

void Outbox::forget(const Entry& entry)
{
    if (entry.taskId.isEmpty())
        return;
    const auto share = m_tasks.find(entry.taskId);
    if (share == m_tasks.end())
        return;
    share->bytes -= size(entry);
    if (share->bytes <= 0 && share->lines.empty() && share->notice == 0)
        m_tasks.erase(share);
}

} // namespace brinmoor
