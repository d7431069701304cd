#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace brinmoor::test {

// Where the programs of this build live.
QString binDir();

// A folder that holds a project as the agent recognises one (a Package.swift, or an
// Xcode project at the top level), created with its parents.
QString makeProject(const QString& path, bool xcode = false);

// Writes a file (parents created), returning its path.
QString writeFile(const QString& path, const QByteArray& content = QByteArray());

// The body of a file, empty when unreadable.
QByteArray readFile(const QString& path);

// A file's permission bits, as in `stat` (e.g. 0600).
int fileMode(const QString& path);

// A TCP port free on every address now, for a program the test starts that must listen
// on a port named in advance. It lies below the kernel's range for ports chosen on
// bind(0), so a server another test starts at the same time on port 0 cannot take it
// between this call and the program's listen.
quint16 freePort();

// A named pipe the test writes in pieces while a child reads it (`cat FIFO`), so that
// read boundaries are the test's, not the clock's: each piece is written only once the
// previous one has gone all the way through the child's output pipe to its reader.
class PieceWriter {
public:
    // Makes the FIFO; `start` opens it once the child has it open for reading.
    explicit PieceWriter(const QString& path);
    ~PieceWriter();
    PieceWriter(const PieceWriter&) = delete;
    PieceWriter& operator=(const PieceWriter&) = delete;

    const QString& path() const { return m_path; }
    // Opens the FIFO for writing and the output pipe of the child `pid` (its standard
    // output, `cat` itself) for looking at; false when that does not happen in time.
    bool start(qint64 pid);
    // Writes one piece and waits until nothing of it waits in the FIFO or in the child's
    // output pipe: the reader has taken it in one read.
    bool write(const QByteArray& piece);
    // Closes the FIFO: the child sees the end of its input.
    void finish();

private:
    QString m_path;
    qint64 m_pid = 0;
    int m_fifo = -1;
    int m_output = -1;
};

} // namespace brinmoor::test

namespace brinmoor::test {

// The folder holding the fake `claude` and `codex`.
QString fakeToolsDir();

// The arguments the fake tool received on its N-th call (from 1).
QStringList fakeToolArguments(const QString& fakeDir, const QString& tool, int call);

// What `codex exec --json` prints for a turn whose agent messages are these texts.
QByteArray codexAgentMessages(const QStringList& texts);

} // namespace brinmoor::test
