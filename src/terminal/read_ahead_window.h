#pragma once

#include <QtGlobal>

#include <optional>

namespace brinmoor {

// How far a terminal is read ahead of what its slowest pacing reader has rendered: what
// that reader renders in a tenth of a second, between 256 Ki and 1 Mi UTF-16 code units.
// A fast page then has output travelling while it parses what it holds; a slow phone
// has little queued, so the prompt after Ctrl-C is not behind seconds of output.
class ReadAheadWindow {
public:
    static constexpr qint64 kMinimum = 256 * 1024;
    static constexpr qint64 kMaximum = 1024 * 1024;
    // The reader's rate is measured over at least this long.
    static constexpr qint64 kPeriodMs = 100;

    // The reader has rendered up to `offset` by `nowMs` (any steady clock).
    void rendered(qint64 offset, qint64 nowMs);
    // The reader is gone or paced afresh: its rate is not known.
    void reset();
    qint64 size() const { return m_size; }

private:
    struct Mark {
        qint64 offset;
        qint64 atMs;
    };
    std::optional<Mark> m_mark;
    qint64 m_size = kMinimum;
};

} // namespace brinmoor
