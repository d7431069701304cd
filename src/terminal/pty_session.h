#pragma once

#include "base/utf8_stream_decoder.h"
#include "terminal/read_ahead_window.h"
#include "terminal/replay_buffer.h"

#include <QByteArray>
#include <QDateTime>
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QStringList>

#include <functional>
#include <optional>

class QProcess;
class QSocketNotifier;

namespace brinmoor {

class OutgoingFlow;
class ProcessGroup;

// One shell on a pseudo-terminal: the master, the shell's process, the reader (paused
// while the connection is behind, or while the slowest client that paces the session
// is a window behind), a queue for input the terminal does not take at once, the
// replay buffer and the folder the shell is believed to be in.
//
// Both kinds of terminal start the same way: a QProcess whose child makes the terminal
// its controlling terminal and standard streams. Nothing here waits: the start, the
// shell's end (reported by the process object when the kernel says the child exited)
// and every read and write come through the event loop. A signal goes only to a shell
// that has not been reaped yet, so it can never reach a process that reused its id.
class PtySession : public QObject {
    Q_OBJECT

public:
    // Line mode: `/bin/zsh -f` evaluating the lines it reads, echo off (the phone edits
    // the line). Interactive: a login shell with its own line editor and echo.
    enum class Mode { Line, Interactive };

    struct Launch {
        Mode mode = Mode::Line;
        QStringList environment;
    };

    // Input the terminal has not taken yet. A phone that sends more while the shell
    // does not read is refused rather than held without bound.
    static constexpr qsizetype kMaxPendingInput = 1024 * 1024;

    PtySession(const QString& sessionId, const QString& projectPath, const QString& workingDir, OutgoingFlow* flow,
               std::function<void(const QString&)> diag, QObject* parent = nullptr);
    ~PtySession() override;

    // Allocates the terminal (80 by 24) and starts the shell in the working folder;
    // `started` or `failedToStart` follows. False, with the reason, when no terminal
    // could be allocated.
    bool start(const Launch& launch, QString* error);

    const QString& sessionId() const { return m_sessionId; }
    const QString& projectPath() const { return m_projectPath; }
    const QString& workingDir() const { return m_workingDir; }
    bool isInteractive() const { return m_mode == Mode::Interactive; }
    // Started (or starting) and not reaped yet.
    bool isRunning() const;
    // `close` was called: the session takes no more commands.
    bool isClosed() const { return m_closed; }

    // Queues the input and writes what the terminal takes now; the rest goes out as
    // the terminal drains. False, with the reason, when it cannot be taken.
    bool write(const QByteArray& data, QString* error);
    // Ctrl-C through the terminal (after any input still waiting), whose line
    // discipline interrupts the foreground job.
    bool interrupt(QString* error);
    // Sets the window size; false with the reason when the terminal refuses it.
    bool resize(quint16 cols, quint16 rows, QString* error);
    struct WindowSize {
        quint16 cols;
        quint16 rows;
    };
    // The window size the terminal has now; none once it is let go.
    std::optional<WindowSize> windowSize() const;
    // Signals the shell when it is still running; true when a signal was sent.
    bool sendSignal(int signal);
    // Stops reading and asks the shell to end: SIGTERM, then SIGKILL when it still runs
    // after the grace time. An interactive shell's terminal is let go at once (its
    // hang-up ends the shell's jobs).
    void close(int graceMilliseconds);
    // The owner is done with the session: it deletes itself once its shell is reaped.
    void release();

    // Output of the agent's own (a line-mode command as it was given), delivered as the
    // terminal's is: kept for a replay and counted in the offsets.
    void echo(const QString& text);
    // The replay buffer: the newest output chunks, oldest first.
    const QStringList& buffer() const { return m_buffer.reads(); }
    // How much output has been delivered so far, in UTF-16 code units.
    qint64 outputOffset() const { return m_outputOffset; }
    // Clients pace the session and the slowest has rendered output up to `rendered`;
    // without it nobody paces it.
    void pace(std::optional<qint64> rendered);
    // Reads gathered into one output chunk per wake-up: 16 KiB, or 64 KiB for our relay's
    // pages, which take a flood faster in fewer, larger pieces (a `cat` reached a page at
    // 8 to 16 MB/s in pieces of 16 KiB, 14 to 17 MB/s in pieces of 64 KiB).
    static constexpr qsizetype kChunkLimit = 16 * 1024;
    static constexpr qsizetype kLargeChunkLimit = 64 * 1024;
    void setLargeChunks(bool large) { m_chunkLimit = large ? kLargeChunkLimit : kChunkLimit; }
    // A new connection: output given before it (some of it never sent, while no server
    // listened) counts as rendered, or no client could ever catch up with it.
    void countOutputAsRendered() { m_renderedFloor = m_outputOffset; }
    QString currentDirectory;
    QString unfinishedLine; // line-mode input after its last line end, not echoed yet
    QDateTime startedAt;
    QDateTime updatedAt;
    void touch() { updatedAt = QDateTime::currentDateTimeUtc(); }

Q_SIGNALS:
    void started(qint64 pid);
    void failedToStart(const QString& description);
    // Decoded output, one chunk per wake-up of the reader, already in the buffer.
    void output(const QString& text);
    // Queued input could not be written later on.
    void writeFailed(const QString& description);
    // The shell was reaped after its remaining output was delivered: its exit status,
    // or, when a signal ended it, that signal's number (line mode) or 128 plus it
    // (interactive).
    void exited(int exitCode);

private:
    // The terminal, 80 by 24; false with the reason when none could be allocated.
    bool openTerminal(int* slave, QString* error);
    void startShell(const Launch& launch, int slave);
    void watchMaster();
    void disableEcho(int fd);
    bool enqueue(const QByteArray& data, QString* error);
    bool flushInput(QString* error);
    void onReadable();
    // Reads and delivers what the terminal holds now, up to about `limit` bytes;
    // returns how much was read and tells whether the terminal has ended.
    qsizetype readAvailable(qsizetype limit, bool* ended);
    void deliver(const QByteArray& data);
    // Into the replay buffer and out as output.
    void keep(const QString& text);
    void onFinished(int exitCode, bool crashed);
    void stopReading();
    void closeMaster();
    // Reads while the connection keeps up and no pacing client is a window behind.
    bool mayRead() const;
    void updateReading();

    QString m_sessionId;
    QString m_projectPath;
    QString m_workingDir;
    QPointer<OutgoingFlow> m_flow;
    std::function<void(const QString&)> m_diag;
    Mode m_mode = Mode::Line;
    ProcessGroup* m_group;
    QProcess* m_process = nullptr;
    qint64 m_pid = 0;
    int m_master = -1;
    QSocketNotifier* m_reader = nullptr;
    QSocketNotifier* m_writer = nullptr;
    // Input the terminal has not taken yet.
    QByteArray m_pendingInput;
    Utf8StreamDecoder m_decoder;
    ReplayBuffer m_buffer;
    qsizetype m_chunkLimit = kChunkLimit;
    qint64 m_outputOffset = 0;
    std::optional<qint64> m_rendered;
    qint64 m_renderedFloor = 0;
    // Past what the slowest pacing client has rendered, the terminal is read no further
    // than this, and its program waits.
    ReadAheadWindow m_window;
    QElapsedTimer m_clock;
    bool m_closed = false;
    bool m_released = false;
};

} // namespace brinmoor
