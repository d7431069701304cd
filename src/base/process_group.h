#pragma once

#include <QObject>

#include <functional>

class QProcess;

namespace brinmoor {

// The one owner of a process group the agent starts (a task's child, a terminal's shell,
// the local server). The leader is a QProcess the caller has set up; it starts in a group
// of its own (or a session of its own, for a shell with a terminal), the reaper knows the
// group from the start until it is gone, and a graceful stop is SIGTERM to the whole group,
// then SIGKILL to what is left of it after the grace. Nothing here waits on the loop: the
// start's outcome comes as the process's `started` or `errorOccurred` (FailedToStart).
class ProcessGroup : public QObject {
    Q_OBJECT

public:
    enum class Leader { Group, Session };

    explicit ProcessGroup(QObject* parent = nullptr);
    // A leader still running is killed with its group at once and reaped by its process
    // object later, never waited for here.
    ~ProcessGroup() override;

    // Takes `process` (set up, not started) and starts it as the leader of a new group or
    // session; `setup` runs in the child after that, before the program. The leader's id
    // is known at once; a leader that fails to start is forgotten by the reaper.
    void start(QProcess* process, Leader leader, std::function<void()> setup = {});
    QProcess* process() const { return m_process; }
    // The leader's id, which is the group's; 0 before the start.
    qint64 id() const { return m_id; }
    // The leader has been started and not yet reaped.
    bool isRunning() const;

    // Sends `signal` to every member of the group; true when the group still existed.
    bool signal(int signal) const;
    // Sends `signal` to the leader alone while it is not reaped (its id cannot have been
    // reused); true when a signal was sent.
    bool signalLeader(int signal) const;
    // SIGTERM to the group, then SIGKILL to what is left of it after the grace. The kill
    // comes even when this object is gone by then; the reaper forgets the group after it.
    void stop(int graceMilliseconds);
    // SIGKILL to the group at once.
    void kill();
    // After the leader ended: what it left running in its group is stopped the graceful
    // way, or, with nothing left, the reaper forgets the group.
    void endRest(int graceMilliseconds);
    // The group is no concern of the agent's any more: the reaper forgets it.
    void forget();
    // The caller is done with the group: this object deletes itself once the leader is
    // reaped (at once when it is not running), whatever becomes of its parent.
    void release();

    // Sends `signal` to every member of a process group; true when the group existed.
    static bool signalGroup(qint64 group, int signal);

private:
    QProcess* m_process = nullptr;
    qint64 m_id = 0;
};

} // namespace brinmoor
