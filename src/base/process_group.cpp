#include "base/process_group.h"

#include "base/process_reaper.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace brinmoor {

ProcessGroup::ProcessGroup(QObject* parent) : QObject(parent) {}

ProcessGroup::~ProcessGroup()
{
    if (!isRunning())
        return;
    // Never block the loop: kill the group and let the process object reap the leader.
    QProcess* process = m_process;
    process->disconnect();
    kill();
    forget();
    process->setParent(nullptr);
    QObject::connect(process, &QProcess::finished, process, &QObject::deleteLater);
}

void ProcessGroup::start(QProcess* process, Leader leader, std::function<void()> setup)
{
    m_process = process;
    process->setParent(this);
    process->setChildProcessModifier([leader, setup = std::move(setup)] {
        if (leader == Leader::Session)
            ::setsid();
        else
            ::setpgid(0, 0);
        if (setup)
            setup();
    });
    connect(process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError failure) {
        if (failure == QProcess::FailedToStart)
            forget();
    });
    // The child is forked within start(); whether its program runs is reported later.
    process->start();
    if (process->state() == QProcess::NotRunning)
        return;
    m_id = process->processId();
    // The group exists before the child gets to its setup, so that a stop right after
    // the start reaches it. A session only the child can create.
    if (leader == Leader::Group)
        ::setpgid(pid_t(m_id), pid_t(m_id));
    ProcessReaper::watchGroup(m_id);
}

bool ProcessGroup::isRunning() const
{
    return m_process && m_process->state() != QProcess::NotRunning;
}

bool ProcessGroup::signal(int signal) const
{
    if (signalGroup(m_id, signal))
        return true;
    // A new session's leader that has not created it yet is still in the agent's group.
    return errno == ESRCH && signalLeader(signal);
}

bool ProcessGroup::signalLeader(int signal) const
{
    // While the process object has not reaped the leader, its id cannot be reused.
    return isRunning() && m_id > 0 && ::kill(pid_t(m_id), signal) == 0;
}

void ProcessGroup::stop(int graceMilliseconds)
{
    if (m_id <= 0)
        return;
    signal(SIGTERM);
    const qint64 group = m_id;
    // The kill outlives this object: what ignores SIGTERM is killed even when its owner
    // has been cleaned up in the meantime. Until then the reaper knows the group, should
    // the agent itself go first.
    QTimer::singleShot(graceMilliseconds, Qt::PreciseTimer, QCoreApplication::instance(), [group] {
        signalGroup(group, SIGKILL);
        ProcessReaper::forgetGroup(group);
    });
}

void ProcessGroup::kill()
{
    signal(SIGKILL);
}

void ProcessGroup::endRest(int graceMilliseconds)
{
    // What the leader left running in its group (`sleep 100 &`) ends with it.
    if (signalGroup(m_id, 0))
        stop(graceMilliseconds);
    else
        forget();
}

void ProcessGroup::forget()
{
    ProcessReaper::forgetGroup(m_id);
}

void ProcessGroup::release()
{
    setParent(nullptr);
    if (!isRunning()) {
        deleteLater();
        return;
    }
    connect(m_process, &QProcess::finished, this, &QObject::deleteLater);
}

bool ProcessGroup::signalGroup(qint64 group, int signal)
{
    if (group <= 0) {
        errno = ESRCH;
        return false;
    }
    return ::kill(pid_t(-group), signal) == 0;
}

} // namespace brinmoor
