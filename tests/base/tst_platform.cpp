#include "base/platform.h"

#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

using namespace brinmoor;

namespace {

bool closesOnExec(int fd)
{
    return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

bool blocks(int fd)
{
    return (::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

} // namespace

class TstPlatform : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void pipesCloseOnExecAndBlockOnlyWhenAsked()
    {
        int plain[2];
        QVERIFY(Platform::makePipe(plain));
        int quick[2];
        QVERIFY(Platform::makePipe(quick, true));
        for (int fd : {plain[0], plain[1], quick[0], quick[1]})
            QVERIFY(closesOnExec(fd));
        QVERIFY(blocks(plain[0]) && blocks(plain[1]));
        QVERIFY(!blocks(quick[0]) && !blocks(quick[1]));
        QCOMPARE(::write(plain[1], "x", 1), ssize_t(1));
        char byte = 0;
        QCOMPARE(::read(plain[0], &byte, 1), ssize_t(1));
        QCOMPARE(byte, 'x');
        for (int fd : {plain[0], plain[1], quick[0], quick[1]})
            ::close(fd);
    }

    void socketsCloseOnExec()
    {
        const int fd = Platform::makeSocket(AF_INET, SOCK_STREAM, 0);
        QVERIFY(fd >= 0);
        QVERIFY(closesOnExec(fd));
        ::close(fd);
        int ends[2];
        QVERIFY(Platform::makeSocketPair(AF_UNIX, SOCK_STREAM, 0, ends));
        QVERIFY(closesOnExec(ends[0]) && closesOnExec(ends[1]));
        QCOMPARE(::write(ends[0], "y", 1), ssize_t(1));
        char byte = 0;
        QCOMPARE(::read(ends[1], &byte, 1), ssize_t(1));
        QCOMPARE(byte, 'y');
        ::close(ends[0]);
        ::close(ends[1]);
    }

    void aTerminalHasItsWindowAndCarriesBytes()
    {
        winsize window{};
        window.ws_row = 24;
        window.ws_col = 80;
        int controller = -1;
        int terminal = -1;
        QVERIFY(Platform::openTerminal(&controller, &terminal, window));
        QVERIFY(closesOnExec(controller) && closesOnExec(terminal));
        QVERIFY(::isatty(terminal));
        winsize seen{};
        QCOMPARE(::ioctl(terminal, TIOCGWINSZ, &seen), 0);
        QCOMPARE(int(seen.ws_col), 80);
        QCOMPARE(int(seen.ws_row), 24);
        QCOMPARE(::write(controller, "z\n", 2), ssize_t(2));
        char line[8] = {};
        QCOMPARE(::read(terminal, line, sizeof line), ssize_t(2));
        QCOMPARE(QByteArray(line), QByteArray("z\n"));
        ::close(terminal);
        ::close(controller);
    }

    void aFileIsCopiedWhole()
    {
        QTemporaryDir dir;
        const QByteArray content = QByteArray(300 * 1024, 'a') + "end";
        const QByteArray source = QFile::encodeName(dir.filePath(QStringLiteral("source")));
        QFile file(dir.filePath(QStringLiteral("source")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64(content.size()));
        file.close();
        const int from = ::open(source.constData(), O_RDONLY | O_CLOEXEC);
        const int folder = ::open(QFile::encodeName(dir.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        QVERIFY(from >= 0 && folder >= 0);
        int to = -1;
        QVERIFY(Platform::copyFile(from, content.size(), folder, "copy", &to) != Platform::FileCopy::Failed);
        QVERIFY(to >= 0);
        QVERIFY(closesOnExec(to));
        ::close(to);
        // A second copy by the same name is refused, never written over.
        QCOMPARE(Platform::copyFile(from, content.size(), folder, "copy", &to), Platform::FileCopy::Failed);
        QCOMPARE(errno, EEXIST);
        ::close(from);
        ::close(folder);
        QFile copy(dir.filePath(QStringLiteral("copy")));
        QVERIFY(copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), content);
    }
};

QTEST_GUILESS_MAIN(TstPlatform)
#include "tst_platform.moc"
