// The recipes of the README's "Reach it from anywhere", run as a user runs them, on
// loopback: a certificate from mkcert, a private network's certificate (made here in the
// shape `tailscale cert` writes: a chain and an EC key for the machine's name only), and
// nginx in front of the relay with the configuration the README shows.
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "support/relay_client.h"
#include "support/test_support.h"
#include "test_certificate_authority.h"
#include "websocket_client.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslSocket>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTest>

#include <csignal>
#include <memory>

using namespace brinmoor::test;
using brinmoor::relay::TestCertificateAuthority;
namespace ws = brinmoor::relay::ws;

namespace {

QString executable(const QString& name)
{
    return QStandardPaths::findExecutable(name, {QStringLiteral("/usr/local/sbin"), QStringLiteral("/usr/local/bin"),
                                                 QStringLiteral("/usr/sbin"), QStringLiteral("/usr/bin")});
}

struct Run {
    int exitCode = -1;
    QByteArray output;
};

Run run(const QString& program, const QStringList& arguments, const QProcessEnvironment& extra = {})
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& key : extra.keys())
        env.insert(key, extra.value(key));
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(30000))
        return {};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAll()};
}

// What a phone in the private network or on the internet does to check the server:
// `curl https://NAME:PORT/v1/health`, the name resolving to this machine.
Run curlHealth(const QString& name, quint16 port, const QString& authority)
{
    return run(QStringLiteral("curl"),
               {QStringLiteral("--silent"), QStringLiteral("--show-error"), QStringLiteral("--resolve"),
                QStringLiteral("%1:%2:127.0.0.1").arg(name).arg(port), QStringLiteral("--cacert"), authority,
                QStringLiteral("https://%1:%2/v1/health").arg(name).arg(port)});
}

// A browser on another machine: a TLS connection from another loopback address, the
// certificate checked for `name`, and a WebSocket opened through it.
struct BrowserSocket {
    QSslSocket socket;
    QByteArray received;

    bool open(const QString& from, quint16 port, const QString& name, const QString& authority)
    {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setCaCertificates(QSslCertificate::fromPath(authority));
        socket.setSslConfiguration(tls);
        socket.bind(QHostAddress(from));
        QObject::connect(&socket, &QSslSocket::readyRead, &socket, [this] { received += socket.readAll(); });
        socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port, name);
        return waitUntil([&] { return socket.isEncrypted() || socket.state() == QAbstractSocket::UnconnectedState; }) &&
               socket.isEncrypted();
    }

    // The page's WebSocket to the relay, the token as a subprotocol, as Brinmoor Web opens it.
    bool openClientSocket(const QString& origin, const QString& token)
    {
        socket.write(ws::upgradeRequest("/v1/ws/client", QByteArray("Origin: " + origin.toUtf8() +
                                                                    "\r\nSec-WebSocket-Protocol: brinmoor.v1, bearer." +
                                                                    token.toUtf8() + "\r\n")));
        return waitFor("HTTP/1.1 101 Switching Protocols");
    }

    bool waitFor(QByteArrayView text)
    {
        const bool seen = waitUntil([&] { return received.contains(text); });
        if (!seen)
            qWarning("not received: %s\n%s", text.toByteArray().constData(), received.constData());
        return seen;
    }
};

// The headless app's pairing details: server URL, agent id and token.
QRegularExpressionMatch pairingDetails(HeadlessProcess& app)
{
    static const QRegularExpression details(
        QStringLiteral("Server URL: ([^\\n]+)\\nAgent ID: ([^\\n]+)\\nToken: ([0-9a-f]{32})\\n"));
    QRegularExpressionMatch match;
    waitUntil([&] {
        match = details.match(QString::fromUtf8(app.output()));
        return match.hasMatch();
    });
    return match;
}

// The brinmoor-server the app started.
qint64 serverOf(HeadlessProcess& app)
{
    for (const qint64 pid : childProcesses(app.process.processId())) {
        if (readFile(QStringLiteral("/proc/%1/comm").arg(pid)).trimmed() == "brinmoor-server")
            return pid;
    }
    return 0;
}

} // namespace

class TstReachFromAnywhere : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestCertificateAuthority> m_ca;

    // A shell task from the phone, through the relay, to the app's agent and back.
    void runsATaskFor(RelayClient& phone, const QString& line)
    {
        phone.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.create")},
                               {QStringLiteral("agentId"), QStringLiteral("headless-mac")},
                               {QStringLiteral("payload"),
                                QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                            {QStringLiteral("command"), QString(QStringLiteral("echo ") + line)}}}});
        QVERIFY(phone.waitFor([&](const QJsonObject& m) { return m.value(QStringLiteral("line")) == line; }));
        QVERIFY(phone.waitForType(QStringLiteral("task.finished")));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_ca = std::make_unique<TestCertificateAuthority>();
        QVERIFY2(m_ca->error().isEmpty(), qPrintable(m_ca->error()));
    }

    void aCertificateFromMkcert()
    {
        const QString mkcert = executable(QStringLiteral("mkcert"));
        if (mkcert.isEmpty())
            QSKIP("mkcert is not installed (scripts/setup installs it)");
        QTemporaryDir home;
        const QString tls = home.filePath(QStringLiteral(".config/brinmoor/tls"));
        QVERIFY(QDir().mkpath(tls));
        // The README's line, with its own authority folder instead of -install.
        QProcessEnvironment caroot;
        caroot.insert(QStringLiteral("CAROOT"), home.filePath(QStringLiteral("ca")));
        const Run made =
            run(mkcert,
                {QStringLiteral("-cert-file"), tls + QStringLiteral("/cert.pem"), QStringLiteral("-key-file"),
                 tls + QStringLiteral("/key.pem"), QStringLiteral("mymac.local"), QStringLiteral("192.168.1.20"),
                 QStringLiteral("localhost"), QStringLiteral("127.0.0.1")},
                caroot);
        QVERIFY2(made.exitCode == 0, made.output.constData());
        const QString root = QString::fromUtf8(run(mkcert, {QStringLiteral("-CAROOT")}, caroot).output.trimmed()) +
                             QStringLiteral("/rootCA.pem");
        QVERIFY(QFile::exists(root));

        const quint16 port = freePort();
        HeadlessProcess app;
        app.start(port, environment({QStringLiteral("BRINMOOR_TLS_CERT=") + tls + QStringLiteral("/cert.pem"),
                                     QStringLiteral("BRINMOOR_TLS_KEY=") + tls + QStringLiteral("/key.pem"),
                                     QStringLiteral("BRINMOOR_PUBLIC_URL=https://mymac.local:%1").arg(port)}));
        const QRegularExpressionMatch details = pairingDetails(app);
        QVERIFY(details.hasMatch());
        QCOMPARE(details.captured(1), QStringLiteral("https://mymac.local:%1").arg(port));
        // The agent's own link: over TLS on loopback, to the certificate it handed over.
        QVERIFY(app.waitForOutput(QStringLiteral("connected serverURL=wss://127.0.0.1:%1/v1/ws/agent?agentId="
                                                 "headless-mac agentId=headless-mac")
                                      .arg(port)
                                      .toUtf8()));
        QVERIFY(app.waitForOutput("tls.on expires="));
        QVERIFY(app.waitForOutput("agent.register agentId=headless-mac"));

        // The phone, with the root installed.
        RelayClient phone;
        QSslConfiguration trusted = QSslConfiguration::defaultConfiguration();
        trusted.setCaCertificates(QSslCertificate::fromPath(root));
        phone.useTls(trusted);
        QVERIFY(phone.open(port, details.captured(3)));
        runsATaskFor(phone, QStringLiteral("over-mkcert"));
        QVERIFY(app.stop());
        QCOMPARE(app.process.exitCode(), 0);
    }

    void aPrivateNetworksCertificate()
    {
        const TestCertificateAuthority::Issued issued =
            m_ca->issue(QStringLiteral("mymac.tailnet-1234.ts.net"), {QStringLiteral("DNS:mymac.tailnet-1234.ts.net")},
                        TestCertificateAuthority::Chain::WithIntermediate);
        QTemporaryDir tls;
        const QString certificate = tls.filePath(QStringLiteral("mymac.crt"));
        const QString key = tls.filePath(QStringLiteral("mymac.key"));
        QVERIFY(QFile::copy(issued.certificate, certificate));
        QVERIFY(QFile::copy(issued.key, key));

        const quint16 port = freePort();
        const QString publicURL = QStringLiteral("https://mymac.tailnet-1234.ts.net:%1").arg(port);
        HeadlessProcess app;
        app.start(port, environment({QStringLiteral("BRINMOOR_TLS_CERT=") + certificate,
                                     QStringLiteral("BRINMOOR_TLS_KEY=") + key,
                                     QStringLiteral("BRINMOOR_PUBLIC_URL=") + publicURL}));
        const QRegularExpressionMatch details = pairingDetails(app);
        QVERIFY(details.hasMatch());
        QCOMPARE(details.captured(1), publicURL);
        // The certificate names the tailnet name only; the agent's loopback link takes it
        // all the same.
        QVERIFY(app.waitForOutput("agent.register agentId=headless-mac"));

        const Run health = curlHealth(QStringLiteral("mymac.tailnet-1234.ts.net"), port, m_ca->rootCertificate());
        QCOMPARE(health.output, QByteArray("{\"ok\":true}"));
        BrowserSocket browser;
        QVERIFY(browser.open(QStringLiteral("127.0.0.6"), port, QStringLiteral("mymac.tailnet-1234.ts.net"),
                             m_ca->rootCertificate()));
        QVERIFY(browser.openClientSocket(publicURL, details.captured(3)));
        QVERIFY(browser.received.contains("\r\nStrict-Transport-Security: max-age=31536000\r\n"));
        QVERIFY(browser.waitFor("\"agentId\":\"headless-mac\""));
        QVERIFY(app.waitForOutput("client.connected address=127.0.0.6"));

        // The renewal: new files, then SIGHUP; the browser stays connected.
        const TestCertificateAuthority::Issued renewed =
            m_ca->issue(QStringLiteral("mymac.tailnet-1234.ts.net"), {QStringLiteral("DNS:mymac.tailnet-1234.ts.net")},
                        TestCertificateAuthority::Chain::WithIntermediate);
        QVERIFY(QFile::remove(certificate) && QFile::copy(renewed.certificate, certificate));
        QVERIFY(QFile::remove(key) && QFile::copy(renewed.key, key));
        const qint64 server = serverOf(app);
        QVERIFY(server > 0);
        ::kill(pid_t(server), SIGHUP);
        QVERIFY(app.waitForOutput("tls.reloaded expires="));
        QCOMPARE(curlHealth(QStringLiteral("mymac.tailnet-1234.ts.net"), port, m_ca->rootCertificate()).output,
                 QByteArray("{\"ok\":true}"));
        QCOMPARE(browser.socket.state(), QAbstractSocket::ConnectedState);
        QVERIFY(app.stop());
    }

    void nginxInFront()
    {
        const QString nginx = executable(QStringLiteral("nginx"));
        if (nginx.isEmpty())
            QSKIP("nginx is not installed (scripts/setup installs it)");
        // The server block as the README shows it.
        const QString readme = QString::fromUtf8(readFile(QStringLiteral(BRINMOOR_SOURCE_DIR "/README.md")));
        const qsizetype start = readme.indexOf(QStringLiteral("```nginx\n"));
        QVERIFY(start >= 0);
        QString site = readme.mid(start + 9, readme.indexOf(QStringLiteral("```"), start + 9) - start - 9);

        const TestCertificateAuthority::Issued issued =
            m_ca->issue(QStringLiteral("mymac.example.net"), {QStringLiteral("DNS:mymac.example.net")},
                        TestCertificateAuthority::Chain::WithIntermediate);
        const quint16 nginxPort = freePort();
        const QString publicURL = QStringLiteral("https://mymac.example.net:%1").arg(nginxPort);
        RelayProcess relay;
        QVERIFY(relay.start(environment({QStringLiteral("BRINMOOR_TRUSTED_PROXIES=127.0.0.1"),
                                         QStringLiteral("BRINMOOR_PUBLIC_URL=") + publicURL})));

        // Only the ports and the files are this machine's.
        const QList<QPair<QString, QString>> local = {
            {QStringLiteral("listen 8443 ssl;"), QStringLiteral("listen 127.0.0.1:%1 ssl;").arg(nginxPort)},
            {QStringLiteral("http://127.0.0.1:8080;"), QStringLiteral("http://127.0.0.1:%1;").arg(relay.port)},
            {QStringLiteral("/etc/brinmoor/fullchain.pem"), issued.certificate},
            {QStringLiteral("/etc/brinmoor/privkey.pem"), issued.key},
        };
        for (const auto& [from, to] : local) {
            QCOMPARE(site.count(from), 1);
            site.replace(from, to);
        }
        QTemporaryDir prefix;
        writeFile(prefix.filePath(QStringLiteral("nginx.conf")), QStringLiteral("worker_processes 1;\n"
                                                                                "pid %1/nginx.pid;\n"
                                                                                "error_log %1/error.log;\n"
                                                                                "events { worker_connections 64; }\n"
                                                                                "http {\n"
                                                                                "access_log off;\n"
                                                                                "client_body_temp_path %1/body;\n"
                                                                                "proxy_temp_path %1/proxy;\n"
                                                                                "fastcgi_temp_path %1/fastcgi;\n"
                                                                                "uwsgi_temp_path %1/uwsgi;\n"
                                                                                "scgi_temp_path %1/scgi;\n")
                                                                         .arg(prefix.path())
                                                                         .toUtf8() +
                                                                     site.toUtf8() + "}\n");
        const QStringList arguments = {QStringLiteral("-p"), prefix.path(),
                                       QStringLiteral("-e"), prefix.filePath(QStringLiteral("error.log")),
                                       QStringLiteral("-c"), prefix.filePath(QStringLiteral("nginx.conf"))};
        const Run checked = run(nginx, arguments + QStringList{QStringLiteral("-t")});
        QVERIFY2(checked.exitCode == 0, checked.output.constData());
        // One process, not a master with workers, so that nothing of it outlives the test.
        QProcess proxy;
        proxy.setProcessChannelMode(QProcess::MergedChannels);
        proxy.start(nginx,
                    arguments + QStringList{QStringLiteral("-g"), QStringLiteral("daemon off; master_process off;")});
        QVERIFY(waitUntil([&] {
            QTcpSocket probe;
            probe.connectToHost(QStringLiteral("127.0.0.1"), nginxPort);
            return probe.waitForConnected(200) || proxy.state() == QProcess::NotRunning;
        }));
        QVERIFY2(proxy.state() == QProcess::Running,
                 readFile(prefix.filePath(QStringLiteral("error.log"))).constData());

        QCOMPARE(curlHealth(QStringLiteral("mymac.example.net"), nginxPort, m_ca->rootCertificate()).output,
                 QByteArray("{\"ok\":true}"));

        // Brinmoor Web from another machine: the relay sees that machine, not nginx.
        BrowserSocket browser;
        QVERIFY(browser.open(QStringLiteral("127.0.0.5"), nginxPort, QStringLiteral("mymac.example.net"),
                             m_ca->rootCertificate()));
        QVERIFY(browser.openClientSocket(publicURL, relay.token));
        QVERIFY(relay.waitForLine(QStringLiteral("client.connected address=127.0.0.5")));
        RelayClient agent;
        QVERIFY(agent.openAgent(relay.port, QStringLiteral("mac-1"), relay.token));
        QVERIFY(browser.waitFor("{\"agentId\":\"mac-1\",\"type\":\"agent.online\"}"));

        BrowserSocket wrong;
        QVERIFY(wrong.open(QStringLiteral("127.0.0.5"), nginxPort, QStringLiteral("mymac.example.net"),
                           m_ca->rootCertificate()));
        wrong.socket.write("GET /v1/agents HTTP/1.1\r\nHost: mymac.example.net\r\nAuthorization: Bearer nope\r\n\r\n");
        QVERIFY(wrong.waitFor("{\"error\":\"unauthorized\"}"));
        QVERIFY(relay.waitForLine(QStringLiteral("auth.refused address=127.0.0.5 path=/v1/agents reason=wrong token")));

        proxy.terminate();
        QVERIFY(proxy.waitForFinished(10000));
        QCOMPARE(proxy.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(TstReachFromAnywhere)
#include "tst_reach_from_anywhere.moc"
