#include "support/real_tools.h"

#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <unistd.h>

namespace brinmoor::test::RealTools {

QString install()
{
    QProcess install;
    install.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    install.start(QStringLiteral(BRINMOOR_SOURCE_DIR "/scripts/real-tools"), QStringList());
    const bool ran = install.waitForFinished(11 * 60 * 1000);
    const QStringList lines =
        QString::fromUtf8(install.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (!ran || install.exitStatus() != QProcess::NormalExit || install.exitCode() != 0 || lines.isEmpty()) {
        if (install.state() != QProcess::NotRunning) {
            install.kill();
            install.waitForFinished();
        }
        return {};
    }
    return lines.last();
}

QProcessEnvironment environment(const QString& toolsBin, const QString& home, const QString& tmp,
                                const QString& anthropicURL, const QString& openaiURL)
{
    const QString codexHome = home + QStringLiteral("/.codex");
    QDir().mkpath(codexHome);
    writeFile(codexHome + QStringLiteral("/config.toml"), "model = \"fake-model\"\n"
                                                          "model_provider = \"fake\"\n"
                                                          "[model_providers.fake]\n"
                                                          "name = \"fake\"\n"
                                                          "base_url = \"" +
                                                              openaiURL.toUtf8() +
                                                              "/v1\"\n"
                                                              "wire_api = \"responses\"\n"
                                                              "request_max_retries = 0\n"
                                                              "stream_max_retries = 0\n");
    QProcessEnvironment extra;
    extra.insert(QStringLiteral("PATH"), toolsBin + QLatin1Char(':') + qEnvironmentVariable("PATH"));
    extra.insert(QStringLiteral("HOME"), home);
    extra.insert(QStringLiteral("TMPDIR"), tmp);
    extra.insert(QStringLiteral("CODEX_HOME"), codexHome);
    extra.insert(QStringLiteral("ANTHROPIC_BASE_URL"), anthropicURL);
    extra.insert(QStringLiteral("ANTHROPIC_API_KEY"), QStringLiteral("test-key"));
    extra.insert(QStringLiteral("CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC"), QStringLiteral("1"));
    extra.insert(QStringLiteral("DISABLE_AUTOUPDATER"), QStringLiteral("1"));
    // A model that fails fails at once; codex's errors come without a backtrace.
    extra.insert(QStringLiteral("CLAUDE_CODE_MAX_RETRIES"), QStringLiteral("0"));
    extra.insert(QStringLiteral("RUST_BACKTRACE"), QStringLiteral("0"));
    // claude refuses to skip its permission checks for root outside a sandbox.
    if (::geteuid() == 0)
        extra.insert(QStringLiteral("IS_SANDBOX"), QStringLiteral("1"));
    return extra;
}

QStringList processesWithEnvironment(const QByteArray& entry)
{
    QStringList found;
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs)) {
        QFile environ(QStringLiteral("/proc/") + pid + QStringLiteral("/environ"));
        if (!environ.open(QIODevice::ReadOnly))
            continue;
        if (environ.readAll().split('\0').contains(entry)) {
            QFile command(QStringLiteral("/proc/") + pid + QStringLiteral("/cmdline"));
            command.open(QIODevice::ReadOnly);
            found.append(pid + QLatin1Char(' ') + QString::fromUtf8(command.readAll().replace('\0', ' ')));
        }
    }
    return found;
}

Answer messagesAPI(Answer answer)
{
    return [answer](const FakeModelServer::Request& request) {
        if (!request.path.startsWith(QLatin1String("/v1/messages")) ||
            request.path.contains(QLatin1String("count_tokens")))
            return FakeModelServer::Reply{404, "application/json", "{}"};
        return answer(request);
    };
}

Answer responsesAPI(Answer answer)
{
    return [answer](const FakeModelServer::Request& request) {
        if (request.path != QLatin1String("/v1/responses"))
            return FakeModelServer::Reply{404, "application/json", "{}"};
        return answer(request);
    };
}

} // namespace brinmoor::test::RealTools

namespace brinmoor::test {

bool RealToolsFixture::startAll(const std::function<void(QProcessEnvironment&)>& adjust)
{
    m_home = std::make_unique<QTemporaryDir>();
    m_tmp = std::make_unique<QTemporaryDir>();
    m_anthropic = std::make_unique<FakeModelServer>();
    m_openai = std::make_unique<FakeModelServer>();
    m_anthropic->listen();
    m_openai->listen();
    m_relay = std::make_unique<RelayProcess>();
    m_relay->token = QStringLiteral("tok-4e1f9a7c2b6d8035e0a3c1f7");
    if (!m_relay->start())
        return false;
    m_agent = std::make_unique<AgentProcess>();
    QDir().mkpath(project());
    m_environment =
        RealTools::environment(m_toolsBin, m_home->path(), m_tmp->path(), m_anthropic->baseURL(), m_openai->baseURL());
    if (adjust)
        adjust(m_environment);
    m_agent->start(m_relay->url(), m_environment);
    if (!m_relay->waitForLine(QStringLiteral("agent.register agentId=cli-agent")))
        return false;
    m_phone = std::make_unique<RelayClient>();
    return m_phone->open(m_relay->port, m_relay->token);
}

bool RealToolsFixture::stopAll()
{
    bool clean = !m_agent || m_agent->stop();
    if (m_home) {
        const QByteArray home = "HOME=" + QFile::encodeName(m_home->path());
        waitUntil([&] { return RealTools::processesWithEnvironment(home).isEmpty(); }, 5000);
        const QStringList left = RealTools::processesWithEnvironment(home);
        if (!left.isEmpty()) {
            qWarning("left running: %s", qPrintable(left.join(QStringLiteral(", "))));
            clean = false;
        }
    }
    m_phone.reset();
    m_agent.reset();
    m_relay.reset();
    m_anthropic.reset();
    m_openai.reset();
    return clean;
}

} // namespace brinmoor::test
