#include "server_host/local_server_runtime.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

class TstLocalServerRuntime : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    // A token as long as the server takes.
    const QString m_token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");

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

    void theServerShippedWithTheAgentIsFoundThroughALink()
    {
        // The agent's real folder holds the program and its server; it is started
        // through a link in another folder.
        QTemporaryDir dir;
        const QString real = dir.path() + QStringLiteral("/real");
        const QString linked = dir.path() + QStringLiteral("/linked");
        QVERIFY(QDir().mkpath(real) && QDir().mkpath(linked) && QDir().mkpath(dir.path() + QStringLiteral("/cwd")));
        QVERIFY(QFile::copy(test::binDir() + QStringLiteral("/brinmoor_test_helper"),
                            real + QStringLiteral("/brinmoor_test_helper")));
        QVERIFY(QFile::link(real + QStringLiteral("/brinmoor_test_helper"),
                            linked + QStringLiteral("/brinmoor_test_helper")));
        const auto executable = [](const QString& path) -> QString {
            test::writeFile(path, "#!/bin/sh\n");
            QFile::setPermissions(path, QFile::ReadOwner | QFile::ExeOwner);
            return path;
        };
        const auto found = [&] {
            QProcess process;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.remove(QStringLiteral("BRINMOOR_SERVER_PATH"));
            process.setProcessEnvironment(env);
            process.setWorkingDirectory(dir.path() + QStringLiteral("/cwd"));
            process.start(linked + QStringLiteral("/brinmoor_test_helper"), {QStringLiteral("machine")});
            if (!process.waitForFinished(30000) || process.exitCode() != 0)
                return QList<QJsonObject>();
            QList<QJsonObject> lines;
            for (const QByteArray& line : process.readAllStandardOutput().split('\n')) {
                if (!line.isEmpty())
                    lines.append(QJsonDocument::fromJson(line).object());
            }
            return lines;
        };
        const auto expected = [&](const QJsonValue& serverPath) {
            const QJsonObject machine{
                {QStringLiteral("executablePath"), QString(linked + QStringLiteral("/brinmoor_test_helper"))},
                {QStringLiteral("bundleDirectory"), real},
                {QStringLiteral("serverPath"), serverPath}};
            // The same with an application object as without one.
            return QList<QJsonObject>{machine, machine};
        };
        const QString shipped = executable(real + QStringLiteral("/brinmoor-server"));
        QCOMPARE(found(), expected(shipped));
        // One beside the link comes after the shipped one, and counts without it.
        const QString besideLink = executable(linked + QStringLiteral("/brinmoor-server"));
        QCOMPARE(found(), expected(shipped));
        QVERIFY(QFile::remove(shipped));
        QCOMPARE(found(), expected(besideLink));
        QVERIFY(QFile::remove(besideLink));
        QCOMPARE(found(), expected(QJsonValue()));
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
        QCOMPARE(runtime.start(free, m_token, [&](const QString& s) { statuses.append(s); }), free);
        QCOMPARE(statuses, QStringList{QStringLiteral("Bundled server not found")});
    }

    void aTokenTheServerWouldRefuseIsNotGivenToIt()
    {
        const QString given = m_dir.path() + QStringLiteral("/started");
        fakeServer("print -r -- started > " + given.toUtf8() + "\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        const auto status = [&](const QString& s) { statuses.append(s); };
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const int free = probe.serverPort();
        probe.close();
        // A word someone chose, and one character short of enough.
        QCOMPARE(runtime.start(free, QStringLiteral("secret"), status), free);
        QCOMPARE(runtime.start(free, m_token.left(23), status), free);
        QCOMPARE(
            statuses,
            (QStringList{QStringLiteral("Not started: the shared token is too short (6 characters); use at least 24"),
                         QStringLiteral("Not started: the shared token is too short (23 characters); use at least "
                                        "24")}));
        QVERIFY(!runtime.isRunning());
        QVERIFY(childProcesses().isEmpty());
        // Twenty-four characters are enough.
        runtime.start(free, m_token.left(24), status);
        QVERIFY(waitUntil([&] { return readFile(given) == "started\n"; }));
        QCOMPARE(statuses.at(2), QStringLiteral("Server on :%1").arg(free));
        QVERIFY(waitUntil([&] { return statuses.size() == 4; }));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (0)"));
    }

    void serverGetsPortAndTokenAndItsOutputIsRelayed()
    {
        // The stand-in writes what it was given to a file, then prints what the test feeds
        // it piece by piece, so that each piece is one read.
        PieceWriter pieces(m_dir.path() + QStringLiteral("/pieces"));
        const QString given = m_dir.path() + QStringLiteral("/given");
        fakeServer("print -r -- \"port=$BRINMOOR_SERVER_PORT token=$BRINMOOR_SHARED_TOKEN\" > " + given.toUtf8() +
                   "; exec cat " + pieces.path().toUtf8() + "\n");
        LocalServerRuntime runtime;
        QStringList lines;
        runtime.printLine = [&](const QString& line) { lines.append(line); };
        QStringList statuses;
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const int free = probe.serverPort();
        probe.close();
        const int port = runtime.start(free, m_token, [&](const QString& s) { statuses.append(s); });
        QCOMPARE(port, free);
        QCOMPARE(statuses, QStringList{QStringLiteral("Server on :%1").arg(port)});
        QVERIFY(waitUntil([&] { return readFile(given).endsWith('\n'); }));
        QCOMPARE(readFile(given), QStringLiteral("port=%1 token=%2\n").arg(port).arg(m_token).toUtf8());
        QVERIFY(waitUntil([&] { return !childProcesses().isEmpty(); }));
        QVERIFY(pieces.start(childProcesses().first()));
        // Each read is relayed as it comes, trimmed at both ends, whatever lines it
        // holds and whether or not it ends a line.
        QVERIFY(pieces.write("  ready \n"));
        QVERIFY(pieces.write("   \n"));         // only blanks: not relayed
        QVERIFY(pieces.write("listening\n\n")); // trimmed
        QVERIFY(pieces.write("two\nlines in one read\nand half"));
        QVERIFY(pieces.write(" a line\n"));
        QVERIFY(pieces.write("\t no final line end "));
        const QStringList expected{
            QStringLiteral("[BrinmoorServer] ready"),
            QStringLiteral("[BrinmoorServer] listening"),
            QStringLiteral("[BrinmoorServer] two\nlines in one read\nand half"),
            QStringLiteral("[BrinmoorServer] a line"),
            QStringLiteral("[BrinmoorServer] no final line end"),
        };
        // The last piece is not held back for a line end that never comes.
        QVERIFY2(waitUntil([&] { return lines.size() >= expected.size(); }), qPrintable(lines.join(u'|')));
        QCOMPARE(lines, expected);
        QVERIFY(runtime.isRunning());
        runtime.stop();
        QVERIFY(!runtime.isRunning());
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
        // Stopping lets go of the output, not of the end: SIGTERM is reported as its number.
        QVERIFY(waitUntil([&] { return statuses.size() == 2; }));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (15)"));
    }

    void standardErrorIsRelayedLikeStandardOutput()
    {
        PieceWriter pieces(m_dir.path() + QStringLiteral("/error-pieces"));
        fakeServer("exec cat " + pieces.path().toUtf8() + " >&2\n");
        LocalServerRuntime runtime;
        QStringList lines;
        runtime.printLine = [&](const QString& line) { lines.append(line); };
        runtime.start(0, m_token, [](const QString&) {});
        QVERIFY(waitUntil([&] { return !childProcesses().isEmpty(); }));
        QVERIFY(pieces.start(childProcesses().first()));
        QVERIFY(pieces.write(" warning: on standard error \n"));
        QVERIFY(pieces.write("bind failed\nexiting"));
        const QStringList expected{QStringLiteral("[BrinmoorServer] warning: on standard error"),
                                   QStringLiteral("[BrinmoorServer] bind failed\nexiting")};
        QVERIFY2(waitUntil([&] { return lines.size() >= expected.size(); }), qPrintable(lines.join(u'|')));
        QCOMPARE(lines, expected);
        runtime.stop();
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
    }

    void serverIsToldItsCertificatePublicURLAndProxies()
    {
        const QString given = m_dir.path() + QStringLiteral("/given-tls");
        fakeServer("print -r -- \"cert=$BRINMOOR_TLS_CERT key=$BRINMOOR_TLS_KEY url=$BRINMOOR_PUBLIC_URL "
                   "proxies=${BRINMOOR_TRUSTED_PROXIES-unset} hosts=$BRINMOOR_ALLOWED_HOSTS\" > " +
                   given.toUtf8() + "; exec sleep 30\n");
        // What the settings leave empty is not passed on from the agent's own environment.
        qputenv("BRINMOOR_TRUSTED_PROXIES", "10.9.9.9");
        LocalServerSettings server;
        server.tlsCertificate = QStringLiteral("/etc/brinmoor/cert.pem");
        server.tlsKey = QStringLiteral("/etc/brinmoor/key.pem");
        server.publicURL = QStringLiteral("https://mymac.example.net:8443");
        server.allowedHosts = QStringLiteral("mymac.lan,192.168.1.20");
        LocalServerRuntime runtime;
        runtime.printLine = [](const QString&) {};
        runtime.start(
            0, m_token, [](const QString&) {}, server);
        qunsetenv("BRINMOOR_TRUSTED_PROXIES");
        QVERIFY(waitUntil([&] { return readFile(given).endsWith('\n'); }));
        QCOMPARE(readFile(given), QByteArray("cert=/etc/brinmoor/cert.pem key=/etc/brinmoor/key.pem "
                                             "url=https://mymac.example.net:8443 proxies=unset "
                                             "hosts=mymac.lan,192.168.1.20\n"));
        runtime.stop();
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
    }

    void serverKilledBySignalReportsTheSignalsNumber()
    {
        fakeServer("kill -KILL $$\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        runtime.start(0, m_token, [&](const QString& s) { statuses.append(s); });
        QVERIFY(waitUntil([&] { return statuses.size() >= 2; }));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (9)"));
    }

    void serverThatIgnoresSigtermIsKilledAfterThreeSecondsAndReported()
    {
        const QString deaf = m_dir.path() + QStringLiteral("/deaf");
        fakeServer("trap '' TERM; : > " + deaf.toUtf8() + "; while true; do sleep 1; done\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        runtime.start(0, m_token, [&](const QString& s) { statuses.append(s); });
        QVERIFY(waitUntil([&] { return QFile::exists(deaf); }));
        runtime.stop();
        QVERIFY(waitUntil([&] { return statuses.size() == 2; }, 8000));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (9)"));
    }

    void portZeroAndPortsOutOfRange()
    {
        // The given port is tried first, 0 as well: binding it always succeeds.
        QCOMPARE(LocalServerRuntime::resolveAvailablePort(0), 0);
        // A port outside the range cannot be bound: the next candidates are tried.
        const int afterHuge = LocalServerRuntime::resolveAvailablePort(70000);
        QVERIFY2((afterHuge >= 8080 && afterHuge <= 8090) || afterHuge == 70000,
                 qPrintable(QString::number(afterHuge)));
        const int afterNegative = LocalServerRuntime::resolveAvailablePort(-1);
        QVERIFY2((afterNegative >= 8080 && afterNegative <= 8090) || afterNegative == -1,
                 qPrintable(QString::number(afterNegative)));
    }

    void serverEndingByItselfIsReported()
    {
        fakeServer("exit 3\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        runtime.start(0, m_token, [&](const QString& s) { statuses.append(s); });
        QVERIFY(waitUntil([&] { return statuses.size() >= 2; }));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (3)"));
        QVERIFY(!runtime.isRunning());
    }

    void aServerThatEndsByItselfIsStartedAgainAfterAWait()
    {
        // The first run ends by itself at once; the second stays.
        const QString runs = m_dir.path() + QStringLiteral("/runs");
        QFile::remove(runs);
        fakeServer("print run >> " + runs.toUtf8() + "\n[[ $(wc -l < " + runs.toUtf8() +
                   ") -ge 2 ]] && exec sleep 30\nexit 3\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        const int port = runtime.start(0, m_token, [&](const QString& s) { statuses.append(s); });
        QVERIFY(waitUntil([&] { return statuses.size() >= 2; }));
        QCOMPARE(statuses,
                 (QStringList{QStringLiteral("Server on :%1").arg(port), QStringLiteral("Server stopped (3)")}));
        QVERIFY(runtime.restartPending());
        QCOMPARE(runtime.restartDelayMs(), RestartBackoff::kFirstMs);
        // Started again on the same port, and reported as the first start was.
        QVERIFY(waitUntil([&] { return statuses.size() >= 3; }, 5000));
        QCOMPARE(statuses.last(), QStringLiteral("Server on :%1").arg(port));
        QVERIFY(runtime.isRunning());
        QVERIFY(!runtime.restartPending());
        // Stopped on purpose, it stays stopped.
        runtime.stop();
        QVERIFY(waitUntil([&] { return statuses.size() >= 4; }, 5000));
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (15)"));
        QVERIFY(!runtime.restartPending());
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
    }

    void aServerStoppedWhileItsRestartWaitsIsNotStarted()
    {
        fakeServer("exit 4\n");
        LocalServerRuntime runtime;
        QStringList statuses;
        runtime.start(0, m_token, [&](const QString& s) { statuses.append(s); });
        QVERIFY(waitUntil([&] { return runtime.restartPending(); }));
        runtime.stop();
        QVERIFY(!runtime.restartPending());
        QCOMPARE(statuses.size(), 2);
        QCOMPARE(statuses.last(), QStringLiteral("Server stopped (4)"));
    }

    void theWaitDoublesUpToAMinuteAndStartsOverAfterAMinuteOfRunning()
    {
        RestartBackoff backoff;
        QList<int> waits;
        for (int i = 0; i < 9; ++i)
            waits.append(backoff.next(500));
        QCOMPARE(waits, (QList<int>{1'000, 2'000, 4'000, 8'000, 16'000, 32'000, 60'000, 60'000, 60'000}));
        // A server that ran for a minute ended: the wait starts over.
        QCOMPARE(backoff.next(59'999), 60'000);
        QCOMPARE(backoff.next(60'000), 1'000);
        QCOMPARE(backoff.next(0), 2'000);
        backoff.reset();
        QCOMPARE(backoff.next(0), 1'000);
    }

    void startingAgainStopsTheOldServer()
    {
        fakeServer("sleep 30\n");
        LocalServerRuntime runtime;
        runtime.start(0, m_token, [](const QString&) {});
        runtime.start(0, m_token, [](const QString&) {});
        QVERIFY(waitUntil([] { return childProcesses().size() == 1; }, 5000));
        runtime.stop();
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
    }
};

QTEST_GUILESS_MAIN(TstLocalServerRuntime)
#include "tst_local_server_runtime.moc"
