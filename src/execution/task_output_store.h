#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace brinmoor {

// One task the agent keeps the output of, as its list says.
struct KeptTask {
    QString taskId;
    QString kind; // the action
    QString projectPath;
    QString conversationId; // chats only
    QString status;         // "running", "finished", "failed", "cancelled" or "lost"
    std::optional<int> exitCode;
    qint64 startedAt = 0;  // milliseconds since 1970
    qint64 endedAt = 0;    // 0 while it runs
    qint64 lines = 0;      // lines numbered so far
    qint64 keptLines = 0;  // of which the file holds the first so many
    qint64 bytes = 0;      // what the file takes
    bool timedOut = false; // cancelled because it reached its time limit
};

// Some lines of a task's kept output, as a read found them.
struct OutputPage {
    std::optional<qint64> from; // the number of the first line, for a read without a match
    QStringList lines;
    QList<qint64> numbers; // each line's number, for a read with a match
    qint64 total = 0;      // the lines kept when the read began
    bool ended = false;
    QString error;
};

// The whole output of the agent's newest tasks, on disk: a file of lines per task and
// a list of the tasks ("tasks.json") in one folder. Lines are numbered from 1 as they
// are appended. The oldest tasks go when a task begins and the list holds `maxTasks`,
// or the files take more than `maxBytes`; a task whose output passes `maxBytes` keeps its
// first lines. Lines wait in memory (up to 64 KiB) before they are written, and reads run
// in the thread pool.
class TaskOutputStore : public QObject {
    Q_OBJECT

public:
    static constexpr qint64 kDefaultTasks = 20;
    static constexpr qint64 kDefaultBytes = qint64(1) << 30;
    static constexpr int kMaxReadLines = 10000;

    // An empty folder keeps nothing.
    TaskOutputStore(QString folder, qint64 maxTasks, qint64 maxBytes, QObject* parent = nullptr);
    ~TaskOutputStore() override;

    void setBounds(qint64 maxTasks, qint64 maxBytes);
    const QString& folder() const { return m_folder; }

    // A task starts: its list entry ("running") and an empty file.
    void begin(const KeptTask& task);
    // A line of the running task's output; its number, or none for a task not running.
    std::optional<qint64> append(const QString& taskId, QStringView line);
    // The running task reached its time limit: the cancellation that follows is its end.
    void markTimedOut(const QString& taskId);
    // The running task ended (the first end counts).
    void end(const QString& taskId, const QString& status, std::optional<int> exitCode);
    // The tasks kept, newest first.
    QList<KeptTask> tasks() const;
    std::optional<KeptTask> task(const QString& taskId) const;

    // Reads `count` lines from line `from` on (the newest `count` when none), or, with a
    // `match`, the first `count` lines from `from` on that hold it (case ignored). `done`
    // is called on this object's thread.
    void read(const QString& taskId, std::optional<qint64> from, int count, const QString& match,
              std::function<void(const OutputPage&)> done);

    // Writes what waits.
    void flush();

    static QString standardFolder(const QString& stateFolder);

private:
    QString filePath(const QString& taskId) const;
    QString listPath() const;
    void load();
    void save();
    void recount(const QString& taskId);
    void prune();
    qint64 keptBytes() const;

    QString m_folder;
    qint64 m_maxTasks;
    qint64 m_maxBytes;
    QList<KeptTask> m_tasks;  // oldest first
    QString m_running;        // the task being appended to
    qint64 m_othersBytes = 0; // what the files of the other tasks take
    QFile m_file;
    QByteArray m_pending;
    QElapsedTimer m_saved; // since the list was last written
};

} // namespace brinmoor
