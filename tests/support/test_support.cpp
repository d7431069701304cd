#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTcpServer>

#include "support/loopback_server.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brinmoor::test {

QString binDir()
{
    return QStringLiteral(BRINMOOR_BIN_DIR);
}

quint16 freePort()
{
    int ephemeralLow = 32768;
    QFile range(QStringLiteral("/proc/sys/net/ipv4/ip_local_port_range"));
    if (range.open(QIODevice::ReadOnly))
        ephemeralLow = QString::fromLatin1(range.readAll()).simplified().section(QLatin1Char(' '), 0, 0).toInt();
    const int low = 10000;
    const int high = std::max(low + 1000, ephemeralLow);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = quint16(low + int(QRandomGenerator::global()->bounded(high - low)));
        QTcpServer probe;
        if (probe.listen(QHostAddress::AnyIPv4, port))
            return port;
    }
    return 0;
}

QString writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(content);
    return path;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

QString makeProject(const QString& path, bool xcode)
{
    QDir().mkpath(path);
    if (xcode)
        QDir().mkpath(path + QStringLiteral("/App.xcodeproj"));
    else
        writeFile(path + QStringLiteral("/Package.swift"), "// swift-tools-version:5.9\n");
    return path;
}

int fileMode(const QString& path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return static_cast<int>(info.st_mode & 07777);
}

} // namespace brinmoor::test

namespace brinmoor::test {

QString fakeToolsDir()
{
    return QStringLiteral(BRINMOOR_FAKE_TOOLS_DIR);
}

QStringList fakeToolArguments(const QString& fakeDir, const QString& tool, int call)
{
    const QByteArray raw = readFile(QStringLiteral("%1/%2.%3.args").arg(fakeDir, tool).arg(call));
    QStringList arguments;
    for (const QByteArray& piece : raw.split('\0'))
        arguments.append(QString::fromUtf8(piece));
    if (!arguments.isEmpty() && arguments.last().isEmpty())
        arguments.removeLast(); // after the last terminator
    return arguments;
}

QByteArray codexAgentMessages(const QStringList& texts)
{
    QByteArray stream = R"({"type":"thread.started","thread_id":"th-p"})"
                        "\n";
    for (const QString& text : texts)
        stream += R"({"type":"item.completed","item":{"type":"agent_message","text":")" + text.toUtf8() + "\"}}\n";
    stream += R"({"type":"turn.completed"})"
              "\n";
    return stream;
}

namespace {

int bytesWaiting(int fd)
{
    int pending = 0;
    return fd >= 0 && ::ioctl(fd, FIONREAD, &pending) == 0 ? pending : -1;
}

} // namespace

PieceWriter::PieceWriter(const QString& path) : m_path(path)
{
    ::mkfifo(QFile::encodeName(path).constData(), 0600);
}

PieceWriter::~PieceWriter()
{
    finish();
    if (m_output >= 0)
        ::close(m_output);
    QFile::remove(m_path);
}

bool PieceWriter::start(qint64 pid)
{
    m_pid = pid;
    // Without a reader yet, a non-blocking open fails with ENXIO: try again.
    waitUntil([this] {
        m_fifo = ::open(QFile::encodeName(m_path).constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return m_fifo >= 0;
    });
    // The child's output pipe, opened again through /proc only to ask how much waits in it.
    m_output =
        ::open(QStringLiteral("/proc/%1/fd/1").arg(pid).toLocal8Bit().constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    return m_fifo >= 0 && m_output >= 0;
}

bool PieceWriter::write(const QByteArray& piece)
{
    if (::write(m_fifo, piece.constData(), size_t(piece.size())) != piece.size())
        return false;
    // Through when the child waits for its next piece (so it has written this one: the
    // kernel names that wait "pipe_read", newer ones "anon_pipe_read") and neither pipe
    // holds anything.
    return waitUntil([this] {
        return bytesWaiting(m_fifo) == 0 &&
               readFile(QStringLiteral("/proc/%1/wchan").arg(m_pid)).endsWith("pipe_read") &&
               bytesWaiting(m_output) == 0;
    });
}

void PieceWriter::finish()
{
    if (m_fifo >= 0) {
        ::close(m_fifo);
        m_fifo = -1;
    }
}

} // namespace brinmoor::test
