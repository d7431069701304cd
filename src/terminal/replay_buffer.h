#pragma once

#include <QString>
#include <QStringList>

namespace brinmoor {

// A terminal's newest reads, given again to a client that attaches: at most
// `kMaxReads` of them and `kMaxUnits` UTF-16 code units, the newest always kept whole.
class ReplayBuffer {
public:
    static constexpr qsizetype kMaxReads = 128;
    // 2 Mi, and room for 128 reads of 16 KiB that each begin with the rest of a character
    // the read before cut: a server without our extensions always gets 128 reads.
    static constexpr qsizetype kMaxUnits = 2 * 1024 * 1024 + kMaxReads * 4;

    void keep(const QString& read);
    const QStringList& reads() const { return m_reads; }
    qsizetype units() const { return m_units; }

private:
    QStringList m_reads;
    qsizetype m_units = 0;
};

} // namespace brinmoor
