#include "base/process_group.h"
#include "support/loopback_server.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

// A shell text run by /bin/zsh; its output is read through the process object.
QProcess* shell(const QString& text)
{
    auto* process = new QProcess;
    process->setProgram(QStringLiteral("/bin/zsh"));
    process->setArguments({QStringLiteral("-fc"), text});
    process->setStandardInputFile(QProcess::nullDevice());
    return process;
}

bool groupExists(qint64 group)
{
    return ::kill(pid_t(-group), 0) == 0 || errno != ESRCH;
}

bool processExists(qint64 pid)
{
    return ::kill(pid_t(pid), 0) == 0 || errno != ESRCH;
}

// The open descriptors of this process, counted without opening one.
int openDescriptors()
{
    int count = 0;
    for (int fd = 0; fd < 4096; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1)
            ++count;
    }
    return count;
}

// Waits until the process has printed `line` (it has set its traps by then).
bool waitForLine(QProcess* process, const QByteArray& line)
{
    QByteArray seen;
    return waitUntil([&] {
        seen += process->readAllStandardOutput();
        return seen.contains(line);
    });
}

struct Ending {
    int exitCode = -1;
    QProcess::ExitStatus status = QProcess::NormalExit;
    qint64 afterMilliseconds = -1;
};

void recordEnd(QProcess* process, Ending& ending, const QElapsedTimer& clock)
{
    QObject::connect(process, &QProcess::finished, process,
                     [&ending, &clock](int exitCode, QProcess::ExitStatus status) {
                         ending = {exitCode, status, clock.elapsed()};
                     });
}

// Stops the group with the grace and waits for its leader to end, timed from the stop.
std::optional<Ending> stopAndWait(ProcessGroup& group, int graceMilliseconds)
{
    QElapsedTimer clock;
    clock.start();
    Ending ending;
    recordEnd(group.process(), ending, clock);
    group.stop(graceMilliseconds);
    const bool ended = waitUntil([&] { return ending.afterMilliseconds >= 0; });
    group.process()->disconnect();
    return ended ? std::optional<Ending>(ending) : std::nullopt;
}

} // namespace

class TstProcessGroup : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theLeaderLeadsItsGroupFromTheStart()
    {
        ProcessGroup group;
        QProcess* process = shell(QStringLiteral("sleep 300"));
        QSignalSpy started(process, &QProcess::started);
        group.start(process, ProcessGroup::Leader::Group);
        QVERIFY(group.id() > 0);
        QVERIFY(group.isRunning());
        QCOMPARE(started.count(), 0);
        // Set by the agent too, before the child runs anything of its own.
        QCOMPARE(qint64(::getpgid(pid_t(group.id()))), group.id());
        QVERIFY(started.wait(10000));
        QCOMPARE(qint64(::getpgid(pid_t(group.id()))), group.id());
        QVERIFY(::getsid(pid_t(group.id())) != pid_t(group.id()));
        group.kill();
        QVERIFY(waitUntil([&] { return !group.isRunning(); }));
        QCOMPARE(process->exitStatus(), QProcess::CrashExit);
        QCOMPARE(process->exitCode(), SIGKILL);
    }

    void aSessionLeaderLeadsASessionAndItsGroup()
    {
        ProcessGroup group;
        group.start(shell(QStringLiteral("sleep 300")), ProcessGroup::Leader::Session);
        QSignalSpy started(group.process(), &QProcess::started);
        QVERIFY(started.wait(10000));
        QCOMPARE(qint64(::getsid(pid_t(group.id()))), group.id());
        QCOMPARE(qint64(::getpgid(pid_t(group.id()))), group.id());
        group.stop(60000);
        QVERIFY(waitUntil([&] { return !group.isRunning(); }));
        QCOMPARE(group.process()->exitCode(), SIGTERM);
    }

    void theSetupRunsInTheChildBeforeTheProgram()
    {
        QTemporaryDir dir;
        const QByteArray folder = QFile::encodeName(dir.path());
        ProcessGroup group;
        group.start(shell(QStringLiteral("pwd")), ProcessGroup::Leader::Group,
                    [folder] { [[maybe_unused]] const int changed = ::chdir(folder.constData()); });
        QVERIFY(waitUntil([&] { return !group.isRunning(); }));
        QCOMPARE(group.process()->readAllStandardOutput(), folder + '\n');
    }

    void aStopEndsTheWholeGroupAtOnceWhenItHonoursSigterm()
    {
        ProcessGroup group;
        QProcess* process = shell(QStringLiteral("sleep 300 & echo $!; wait"));
        group.start(process, ProcessGroup::Leader::Group);
        QVERIFY(waitUntil([&] { return process->canReadLine(); }));
        const qint64 background = process->readLine().trimmed().toLongLong();
        QVERIFY(processExists(background));
        const std::optional<Ending> ending = stopAndWait(group, 60000);
        QVERIFY(ending);
        QCOMPARE(ending->status, QProcess::CrashExit);
        QCOMPARE(ending->exitCode, SIGTERM);
        QVERIFY(waitUntil([&] { return !groupExists(group.id()); }));
        QVERIFY(!processExists(background));
    }

    void whatIgnoresSigtermIsKilledAfterTheGrace()
    {
        ProcessGroup group;
        QProcess* process = shell(QStringLiteral("trap '' TERM; echo ready; sleep 300"));
        group.start(process, ProcessGroup::Leader::Group);
        QVERIFY(waitForLine(process, "ready"));
        const std::optional<Ending> ending = stopAndWait(group, 700);
        QVERIFY(ending);
        QCOMPARE(ending->status, QProcess::CrashExit);
        QCOMPARE(ending->exitCode, SIGKILL);
        QVERIFY2(ending->afterMilliseconds >= 700, qPrintable(QString::number(ending->afterMilliseconds)));
        QVERIFY(waitUntil([&] { return !groupExists(group.id()); }));
    }

    void theKillAfterTheGraceOutlivesTheOwner()
    {
        auto* group = new ProcessGroup;
        QProcess* process = shell(QStringLiteral("trap '' TERM; echo ready; sleep 300"));
        group->start(process, ProcessGroup::Leader::Group);
        QVERIFY(waitForLine(process, "ready"));
        const qint64 id = group->id();
        group->stop(500);
        // Released at once: the group object goes with the leader, the kill comes anyway.
        const QPointer<ProcessGroup> watched = group;
        group->release();
        QVERIFY(processExists(id));
        QVERIFY(waitUntil([&] { return !groupExists(id) && !watched; }));
    }

    void aStopRightAfterTheStartReachesTheGroup()
    {
        ProcessGroup group;
        QProcess* process = shell(QStringLiteral("sleep 300"));
        QElapsedTimer clock;
        clock.start();
        Ending ending;
        recordEnd(process, ending, clock);
        group.start(process, ProcessGroup::Leader::Group);
        group.stop(60000);
        QVERIFY(waitUntil([&] { return ending.afterMilliseconds >= 0; }));
        QCOMPARE(ending.exitCode, SIGTERM);
    }

    void whatTheLeaderLeftRunningEndsWithIt()
    {
        ProcessGroup group;
        QProcess* process = shell(QStringLiteral("trap '' TERM; sleep 300 >/dev/null & echo $!"));
        group.start(process, ProcessGroup::Leader::Group);
        QVERIFY(waitUntil([&] { return !group.isRunning(); }));
        const qint64 background = process->readAllStandardOutput().trimmed().toLongLong();
        QVERIFY(processExists(background));
        QElapsedTimer clock;
        clock.start();
        group.endRest(500);
        QVERIFY(waitUntil([&] { return !processExists(background); }));
        QVERIFY(clock.elapsed() >= 500);
        QVERIFY(!groupExists(group.id()));
    }

    void destroyingTheOwnerKillsTheGroupWithoutWaiting()
    {
        const int descriptors = openDescriptors();
        auto* group = new ProcessGroup;
        QProcess* process = shell(QStringLiteral("trap '' TERM; sleep 300 & echo ready; wait"));
        group->start(process, ProcessGroup::Leader::Group);
        QVERIFY(waitForLine(process, "ready"));
        const qint64 id = group->id();
        const QPointer<QProcess> leader = process;
        delete group;
        // The process object reaps the leader later and goes then, with its descriptors.
        QVERIFY(waitUntil([&] { return !leader && !groupExists(id); }));
        QVERIFY(!processExists(id));
        QCOMPARE(openDescriptors(), descriptors);
    }

    void aLeaderThatCannotStartIsReportedLater()
    {
        // No descriptor count here: Qt 6.4 keeps one of each child that failed to start.
        ProcessGroup group;
        QProcess* process = shell(QStringLiteral("true"));
        process->setWorkingDirectory(QStringLiteral("/nonexistent/folder"));
        QSignalSpy failed(process, &QProcess::errorOccurred);
        group.start(process, ProcessGroup::Leader::Group);
        QVERIFY(group.id() > 0);
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 10000);
        QCOMPARE(failed.first().first().value<QProcess::ProcessError>(), QProcess::FailedToStart);
        QCOMPARE(process->errorString(), QStringLiteral("chdir: No such file or directory"));
        QVERIFY(!group.isRunning());
        QVERIFY(!group.signal(0));
    }

    void signalsGoToTheGroupOrToTheLeaderAlone()
    {
        ProcessGroup group;
        QVERIFY(!group.signal(0));
        QVERIFY(!group.signalLeader(0));
        QProcess* process =
            shell(QStringLiteral("trap 'echo leader got it' USR1; echo ready; while :; do sleep 0.05; done"));
        group.start(process, ProcessGroup::Leader::Group);
        QVERIFY(waitForLine(process, "ready"));
        QVERIFY(group.signalLeader(SIGUSR1));
        QVERIFY(waitForLine(process, "leader got it"));
        QVERIFY(group.signal(SIGTERM));
        QVERIFY(waitUntil([&] { return !group.isRunning(); }));
        QVERIFY(!group.signalLeader(0));
        QVERIFY(waitUntil([&] { return !group.signal(0); }));
    }
};

QTEST_GUILESS_MAIN(TstProcessGroup)
#include "tst_process_group.moc"
