#pragma once

#include <QByteArray>

#include <deque>

namespace brinmoor::relay {

// Frames that many clients are sent (an agent's messages, the relay's announcements),
// held once while any of them still waits for one: a client's queue names them by
// number, so a client that falls behind costs the relay no copy and no entry per
// frame. Frames are let go from the front once no client waits for them.
class SharedFrames {
public:
    // Adds a frame; its number, one above the last one's.
    qint64 append(const QByteArray& frame);
    const QByteArray& at(qint64 number) const { return m_frames[size_t(number - m_first)]; }
    // The number the next frame gets.
    qint64 end() const { return m_first + qint64(m_frames.size()); }
    // Lets go of the frames below `number`.
    void releaseBefore(qint64 number);
    // Frames appended since the last release.
    qsizetype appendedSinceRelease() const { return m_appended; }
    // The bytes of the frames held.
    qint64 bytes() const { return m_bytes; }

private:
    std::deque<QByteArray> m_frames;
    qint64 m_first = 0;
    qint64 m_bytes = 0;
    qsizetype m_appended = 0;
};

} // namespace brinmoor::relay
