#pragma once

#include "base/utf8_stream_decoder.h"

#include <QObject>
#include <QPointer>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

class QSocketNotifier;

namespace brinmoor {

class OutgoingFlow;
class ProcessGroup;

// One task child: `/bin/zsh -lc TEXT` (or under `script` when it needs a terminal) in
// its own process group, standard input on the null device, its output read through
// the event loop and decoded as UTF-8. Reading pauses while the outgoing flow (or the
// pace of the task's readers) is blocked, so a fast child cannot grow the agent's memory.
class ChildProcess : public QObject {
    Q_OBJECT

public:
    // How long what a finished child left running in its group gets after SIGTERM.
    static constexpr int kGroupGraceMilliseconds = 5000;

    enum class Channels { Separate, Merged };

    struct Launch {
        QString shell;
        QString workingDir;
        bool requiresTTY = false;
        Channels channels = Channels::Separate;
    };

    // The program and arguments that run a shell text.
    struct CommandLine {
        QString program;
        QStringList arguments;
    };
    static CommandLine commandLine(const QString& shell, bool requiresTTY);

    // The agent's environment without the variables that carry the relay token.
    static QProcessEnvironment childEnvironment();

    explicit ChildProcess(OutgoingFlow* flow, QObject* parent = nullptr);
    ~ChildProcess() override;

    // Reading also waits while `flow` is blocked. Before `start`.
    void alsoWaitFor(OutgoingFlow* flow);

    // Launches the child without waiting for it: `started` or `failedToStart` follows.
    // False, with the reason in `error`, when not even that could begin.
    bool start(const Launch& launch, QString* error);
    qint64 pid() const { return m_pid; }
    // Whether more output is on its way: reading waits, or a pipe holds unread bytes.
    bool hasOutputComing() const;
    bool isRunning() const;

    // SIGTERM to the child's whole process group, then SIGKILL to what is left of it
    // after the grace time. When the child exits by itself, the rest of its group is
    // ended the same way.
    void terminateTree(int graceMilliseconds);

    // SIGKILL to the child's whole process group at once.
    void kill();

Q_SIGNALS:
    // The program runs; its output is read from now on.
    void started();
    // The program could not be run (a missing working folder, a failed exec).
    void failedToStart(const QString& error);
    // Decoded output, in the pieces in which it was read. Merged output comes as
    // standard output.
    void standardOutput(const QString& text);
    void standardError(const QString& text);
    // The child has exited and its remaining output was delivered. A child ended by a
    // signal reports the signal's number.
    void exited(int status);

private:
    struct Pipe {
        int fd = -1;
        QSocketNotifier* notifier = nullptr;
        Utf8StreamDecoder decoder;
        bool open() const { return fd >= 0; }
    };

    void onReadable(Pipe& pipe, bool isError);
    // Reads once; false at end of file or on a hard error.
    bool readOnce(Pipe& pipe, bool isError);
    // Decodes the first `size` bytes of the read buffer and emits the text.
    void deliver(Pipe& pipe, qsizetype size, bool isError);
    void closePipe(Pipe& pipe);
    bool isHeldBack() const;
    void pause();
    void resume();
    void onStarted();
    void onFailedToStart();
    void onFinished(int exitCode, int exitStatus);

    QList<QPointer<OutgoingFlow>> m_flows;
    ProcessGroup* m_group;
    Pipe m_out;
    Pipe m_err;
    QByteArray m_readBuffer;
    qint64 m_pid = 0;
    bool m_running = false;
    bool m_starting = false;
    bool m_paused = false;
};

} // namespace brinmoor
