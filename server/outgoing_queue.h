#pragma once

#include "shared_frames.h"

#include <QByteArray>

#include <deque>
#include <optional>

class QIODevice;

namespace brinmoor::relay {

// What waits to be handed to one peer's socket: frames of the peer's own, and runs of
// frames held once for every peer (SharedFrames). It knows what it holds, each entry's
// cost included, so that a peer that lets too much pile up can be told apart.
class OutgoingQueue {
public:
    bool empty() const { return m_entries.empty(); }
    // The bytes waiting, and what keeping them costs.
    qsizetype bytes() const { return m_bytes; }
    void push(const QByteArray& frame);
    // A frame other peers are sent too: it waits in `frames`, held once for all of them.
    // `number` is its number there, -1 until it is added (by the first peer that has to
    // keep it).
    void pushShared(SharedFrames& frames, const QByteArray& frame, qint64& number);
    // The number of the oldest shared frame waiting; none when none is.
    std::optional<qint64> oldestShared() const;
    // Hands the next frame to the socket.
    void writeNext(QIODevice& socket);
    void clear();

private:
    // A frame of the peer's own, or a run of shared frames [first, end).
    struct Entry {
        QByteArray frame;
        qint64 first = -1;
        qint64 end = -1;
    };

    std::deque<Entry> m_entries;
    qsizetype m_bytes = 0;
    SharedFrames* m_shared = nullptr; // where the runs are
};

} // namespace brinmoor::relay
