// The agent's link to a relay over TLS: pinned to the certificate of the server it
// started beside itself, or verified like any other (the system's authorities and
// "tlsCA"), and saying exactly why a certificate was refused.
#include "agent/agent_runtime.h"
#include "base/diag.h"
#include "config/settings_store.h"
#include "support/loopback_server.h"
#include "support/process_fixtures.h"
#include "test_certificate_authority.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace brinmoor;
using namespace brinmoor::test;
using brinmoor::relay::TestCertificateAuthority;

namespace {

// What the verification says of the named certificate and its intermediate, from an
// authority the agent does not know.
constexpr char kUntrusted[] = "the server's certificate was refused: The host name did not match any of the valid "
                              "hosts for this certificate; The issuer certificate of a locally looked up certificate "
                              "could not be found";

} // namespace

class TstServerCertificate : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestCertificateAuthority> m_ca;
    // For the name phones use only, as a private network hands it out.
    TestCertificateAuthority::Issued m_named;
    // For 127.0.0.1 too.
    TestCertificateAuthority::Issued m_local;
    std::unique_ptr<RelayProcess> m_relay;
    QTemporaryDir m_repo;
    MemorySettingsStore m_settings;
    std::unique_ptr<AgentRuntime> m_runtime;
    QStringList m_statuses;

    bool startRelay(const TestCertificateAuthority::Issued& files)
    {
        m_relay = std::make_unique<RelayProcess>();
        m_relay->token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
        return m_relay->start(environment({QStringLiteral("BRINMOOR_TLS_CERT=") + files.certificate,
                                           QStringLiteral("BRINMOOR_TLS_KEY=") + files.key}));
    }

    void startAgent(std::optional<QString> pinned)
    {
        m_settings.setValue(QStringLiteral("serverURL"), m_relay->url());
        m_settings.setValue(QStringLiteral("agentId"), QStringLiteral("test-agent"));
        m_settings.setValue(QStringLiteral("token"), QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7"));
        m_settings.setValue(QStringLiteral("repoRoot"), m_repo.path());
        Machine machine;
        machine.currentDirectory = m_repo.path();
        machine.homeDirectory = m_repo.path();
        m_runtime = std::make_unique<AgentRuntime>(m_settings, Environment{}, machine);
        m_runtime->onStatus = [this](const QString& text) { m_statuses.append(text); };
        m_runtime->pinServerCertificate(std::move(pinned));
        m_runtime->start();
    }

    QString socketURL() const
    {
        return QStringLiteral("wss://127.0.0.1:%1/v1/ws/agent?agentId=test-agent").arg(m_relay->port);
    }

    bool waitForStatus(const QString& status)
    {
        const bool seen = waitUntil([&] { return m_statuses.contains(status); });
        if (!seen)
            qWarning("statuses:\n%s", qPrintable(m_statuses.join(QLatin1Char('\n'))));
        return seen;
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_ca = std::make_unique<TestCertificateAuthority>();
        QVERIFY2(m_ca->error().isEmpty(), qPrintable(m_ca->error()));
        m_named =
            m_ca->issue(QStringLiteral("mymac.tailnet-1234.ts.net"), {QStringLiteral("DNS:mymac.tailnet-1234.ts.net")},
                        TestCertificateAuthority::Chain::WithIntermediate);
        m_local = m_ca->issue(QStringLiteral("localhost"), {QStringLiteral("IP:127.0.0.1")});
        QVERIFY(!m_named.certificate.isEmpty() && !m_local.certificate.isEmpty());
    }

    void cleanup()
    {
        if (m_runtime)
            m_runtime->stop();
        m_runtime.reset();
        m_relay.reset();
        m_statuses.clear();
        m_settings.remove(QStringLiteral("tlsCA"));
    }

    void takesThePinnedCertificateWhateverItNames()
    {
        QVERIFY(startRelay(m_named));
        startAgent(m_named.certificate);
        QVERIFY(waitForStatus(QStringLiteral("Connected as test-agent")));
        QVERIFY(m_relay->waitForLine(QStringLiteral("agent.register agentId=test-agent")));
    }

    void refusesAnotherCertificateThanThePinnedOne()
    {
        DiagRecorder log;
        QVERIFY(startRelay(m_named));
        startAgent(m_local.certificate);
        const QString reason = QStringLiteral("the server's certificate is not the one in ") + m_local.certificate;
        QVERIFY(waitForStatus(QStringLiteral("Reconnect in 3s: ") + reason));
        QVERIFY(
            log.contains(QStringLiteral("tls.refused serverURL=") + socketURL() + QStringLiteral(" reason=") + reason));
        QVERIFY(m_relay->waitForLine(
            QStringLiteral("tls.failed address=127.0.0.1 reason=the client left during the handshake")));
    }

    void refusesAnotherCertificateEvenWhenItWouldVerify()
    {
        // The relay's certificate is good for 127.0.0.1 and its authority is trusted, but
        // the pin names another one: the handshake ends before the token is sent.
        QVERIFY(startRelay(m_local));
        m_settings.setValue(QStringLiteral("tlsCA"), m_ca->rootCertificate());
        startAgent(m_named.certificate);
        const QString reason = QStringLiteral("the server's certificate is not the one in ") + m_named.certificate;
        QVERIFY(waitForStatus(QStringLiteral("Reconnect in 3s: ") + reason));
        QVERIFY(m_relay->waitForLine(
            QStringLiteral("tls.failed address=127.0.0.1 reason=the client left during the handshake")));
        QVERIFY(!m_statuses.contains(QStringLiteral("Connected as test-agent")));
    }

    void saysWhenThePinnedFileCannotBeRead()
    {
        DiagRecorder log;
        QVERIFY(startRelay(m_named));
        startAgent(m_repo.filePath(QStringLiteral("missing.pem")));
        const QString reason = QStringLiteral("cannot read ") + m_repo.filePath(QStringLiteral("missing.pem")) +
                               ": No such file or directory";
        QVERIFY(waitForStatus(QStringLiteral("Reconnect in 3s: ") + reason));
        QVERIFY(
            log.contains(QStringLiteral("tls.refused serverURL=") + socketURL() + QStringLiteral(" reason=") + reason));
    }

    void verifiesLikeAnyOtherWithoutAPin()
    {
        DiagRecorder log;
        QVERIFY(startRelay(m_named));
        startAgent(std::nullopt);
        QVERIFY(waitForStatus(QStringLiteral("Reconnect in 3s: ") + QLatin1String(kUntrusted)));
        QVERIFY(log.contains(QStringLiteral("tls.refused serverURL=") + socketURL() + QStringLiteral(" reason=") +
                             QLatin1String(kUntrusted)));
        // Trusting the authority is not enough when the certificate names another host.
        m_runtime->stop();
        m_statuses.clear();
        m_settings.setValue(QStringLiteral("tlsCA"), m_ca->rootCertificate());
        m_runtime->start();
        QVERIFY(waitForStatus(QStringLiteral("Reconnect in 3s: the server's certificate was refused: The host name did "
                                             "not match any of the valid hosts for this certificate")));
    }

    void connectsWhenTheCertificateVerifies()
    {
        QVERIFY(startRelay(m_local));
        m_settings.setValue(QStringLiteral("tlsCA"), m_ca->rootCertificate());
        startAgent(std::nullopt);
        QVERIFY(waitForStatus(QStringLiteral("Connected as test-agent")));
        QVERIFY(m_relay->waitForLine(QStringLiteral("agent.register agentId=test-agent")));
    }

    void agentOnlySaysWhyACertificateWasRefused()
    {
        QVERIFY(startRelay(m_named));
        AgentProcess agent;
        agent.token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
        agent.start(m_relay->url());
        const QString url = QStringLiteral("wss://127.0.0.1:%1/v1/ws/agent?agentId=cli-agent").arg(m_relay->port);
        QVERIFY(waitUntil([&] {
            return agent.logTexts().contains(QStringLiteral("status Reconnect in 3s: ") + QLatin1String(kUntrusted));
        }));
        QVERIFY(agent.logTexts().contains(QStringLiteral("tls.refused serverURL=") + url + QStringLiteral(" reason=") +
                                          QLatin1String(kUntrusted)));
        QVERIFY(agent.stop());
    }

    void agentOnlyTrustsTheAuthorityItIsGiven()
    {
        QVERIFY(startRelay(m_local));
        AgentProcess agent;
        agent.token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
        QProcessEnvironment extra;
        extra.insert(QStringLiteral("BRINMOOR_TLS_CA"), m_ca->rootCertificate());
        agent.start(m_relay->url(), extra);
        QVERIFY(m_relay->waitForLine(QStringLiteral("agent.register agentId=cli-agent")));
        QVERIFY(agent.logTexts().contains(QStringLiteral("status Connected as cli-agent")));
        QVERIFY(agent.stop());
    }
};

QTEST_GUILESS_MAIN(TstServerCertificate)
#include "tst_server_certificate.moc"
