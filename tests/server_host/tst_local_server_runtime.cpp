#include "server_host/local_server_runtime.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QFile>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

class TstLocalServerRuntime : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    // A stand-in server: prints what it was given, then what the test asks for.
    QString fakeServer(const QByteArray& body)
    {
        const QString path =
            test::writeFile(m_dir.path() + QStringLiteral("/brinmoor-server"), "#!/bin/zsh -f\n" + body);
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("BRINMOOR_SERVER_PATH", path.toUtf8());
        return path;
    }

private Q_SLOTS:
    void cleanup() { qunsetenv("BRINMOOR_SERVER_PATH"); }

    void takenPortMovesToTheNextCandidate()
    {
        QTcpServer holder;
        if (!holder.listen(QHostAddress::LocalHost, 8080))
            QSKIP("port 8080 is in use on this machine");
        const int port = LocalServerRuntime::resolveAvailablePort(8080);
        QVERIFY2(port >= 8081 && port <= 8090, qPrintable(QString::number(port)));
        QTcpServer probe;
        if (probe.listen(QHostAddress::LocalHost, 8081)) {
            probe.close();
            QCOMPARE(LocalServerRuntime::resolveAvailablePort(8080), 8081);
        }
    }

    void freePortIsUsedAndATakenOneFallsBackTo8080()
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const int taken = probe.serverPort();
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::LocalHost, 0));
        const int free = other.serverPort();
        other.close();
        QCOMPARE(LocalServerRuntime::resolveAvailablePort(free), free);
        QTcpServer at8080;
        const bool eightyFree = at8080.listen(QHostAddress::LocalHost, 8080);
        at8080.close();
        if (eightyFree)
            QCOMPARE(LocalServerRuntime::resolveAvailablePort(taken), 8080);
        else
            QVERIFY(LocalServerRuntime::resolveAvailablePort(taken) != taken);
    }

    void staleServerPathIsSkipped()
    {
        const QString beside = test::writeFile(m_dir.path() + QStringLiteral("/bin/brinmoor-server"), "#!/bin/sh\n");
        QFile::setPermissions(beside, QFile::ReadOwner | QFile::ExeOwner);
        const QString stale = test::writeFile(m_dir.path() + QStringLiteral("/stale"), "not executable");
        Machine machine;
        machine.executablePath = m_dir.path() + QStringLiteral("/bin/BrinmoorMacAgent");
        machine.currentDirectory = m_dir.path() + QStringLiteral("/nowhere");
        QCOMPARE(
            LocalServerRuntime::resolveServerBinaryPath({{QStringLiteral("BRINMOOR_SERVER_PATH"), stale}}, machine),
            std::optional<QString>(beside));
        QCOMPARE(
            LocalServerRuntime::resolveServerBinaryPath({{QStringLiteral("BRINMOOR_SERVER_PATH"), beside}}, machine),
            std::optional<QString>(beside));
        QFile::remove(beside);
        QCOMPARE(LocalServerRuntime::resolveServerBinaryPath({}, machine), std::nullopt);
        const QString inRepo =
            test::writeFile(m_dir.path() + QStringLiteral("/nowhere/server/brinmoor-server"), "#!/bin/sh\n");
        QFile::setPermissions(inRepo, QFile::ReadOwner | QFile::ExeOwner);
        QCOMPARE(LocalServerRuntime::resolveServerBinaryPath({}, machine), std::optional<QString>(inRepo));
    }

    void missingServerIsReported()
    {
        qputenv("BRINMOOR_SERVER_PATH", "/nonexistent/brinmoor-server");
        LocalServerRuntime runtime;
        // Beside the test binary and under the working folder there is no server either.
        if (LocalServerRuntime::resolveServerBinaryPath())
            QSKIP("a brinmoor-server is installed where the search looks");
        QStringList statuses;
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const int free = probe.serverPort();
        probe.close();
        QCOMPARE(runtime.start(free, QStringLiteral("t"), [&](const QString& s) { statuses.append(s); }), free);
        QCOMPARE(statuses, QStringList{QStringLiteral("Bundled server not found")});
    }

    void serverGetsPortAndTokenAndItsOutputIsRelayed()
    {
        fakeServer("print -r -- \"  ready \"; sleep 0.2; print '   '; sleep 0.2; "
                   "print -r -- \"port=$BRINMOOR_SERVER_PORT token=$BRINMOOR_SHARED_TOKEN\"; sleep 30\n");
        LocalServerRuntime runtime;
        QStringList lines;
        runtime.printLine = [&](const QString& line) { lines.append(line); };
        QStringList statuses;
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const int free = probe.serverPort();
        probe.close();
        const int port = runtime.start(free, QStringLiteral("tok"), [&](const QString& s) { statuses.append(s); });
        QCOMPARE(port, free);
        QCOMPARE(statuses, QStringList{QStringLiteral("Server on :%1").arg(port)});
        QVERIFY(waitUntil([&] { return lines.size() >= 2; }));
        QCOMPARE(lines, (QStringList{QStringLiteral("[BrinmoorServer] ready"),
                                     QStringLiteral("[BrinmoorServer] port=%1 token=tok").arg(port)}));
        QVERIFY(runtime.isRunning());
        runtime.stop();
        QVERIFY(!runtime.isRunning());
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
        QCOMPARE(statuses.size(), 1); // a stopped server is not reported as ended
    }

    void serverEndingByItselfIsReported()
    {
        fakeServer("exit 3\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        runtime.start(0, QStringLiteral("t"), [&](const QString& s) { statuses.append(s); });
        QVERIFY(waitUntil([&] { return statuses.size() >= 2; }));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (3)"));
        QVERIFY(!runtime.isRunning());
    }

    void startingAgainStopsTheOldServer()
    {
        fakeServer("sleep 30\n");
        LocalServerRuntime runtime;
        runtime.start(0, QStringLiteral("t"), [](const QString&) {});
        runtime.start(0, QStringLiteral("t"), [](const QString&) {});
        QVERIFY(waitUntil([] { return childProcesses().size() == 1; }, 5000));
        runtime.stop();
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
    }
};

QTEST_GUILESS_MAIN(TstLocalServerRuntime)
#include "tst_local_server_runtime.moc"
