#pragma once

#include "sessions/desk_session.h"

#include <QFileSystemWatcher>
#include <QFutureWatcher>
#include <QObject>

namespace brinmoor {

// Follows one session's file as its tool writes it: each time it grows, the whole lines
// added since are read (off the loop) and handed on as turns. Read-only: the file is
// never written. Starts at the file's end as it is when made.
class SessionWatch : public QObject {
    Q_OBJECT

public:
    SessionWatch(DeskSession session, qint64 from, QObject* parent = nullptr);

    const DeskSession& session() const { return m_session; }

Q_SIGNALS:
    void grew(const QList<SessionItem>& items);

private:
    struct Read {
        QList<SessionItem> items;
        qint64 end = 0; // the offset after the last whole line read
    };

    void readMore();
    void onRead();

    DeskSession m_session;
    qint64 m_offset;
    QFileSystemWatcher m_file;
    QFutureWatcher<Read> m_read;
    bool m_again = false; // the file changed while a read ran
};

} // namespace brinmoor
