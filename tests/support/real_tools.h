#pragma once

#include "support/fake_model_server.h"

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <functional>

namespace brinmoor::test::RealTools {

// The released `claude` and `codex`, installed from the npm registry by scripts/real-tools
// (the first time, up to 11 minutes): the folder of their commands, or empty when they
// cannot be installed.
QString install();

// What the agent, and a person at the desk, run the tools with: the tools first on the
// PATH, their own HOME and TMPDIR, codex's home (`home`/.codex, configured for the
// Responses server) and the Messages server, without retries or updates.
QProcessEnvironment environment(const QString& toolsBin, const QString& home, const QString& tmp,
                                const QString& anthropicURL, const QString& openaiURL);

// The processes whose environment holds the entry ("HOME=/tmp/…").
QStringList processesWithEnvironment(const QByteArray& entry);

using Answer = std::function<FakeModelServer::Reply(const FakeModelServer::Request&)>;
// The model's calls of the Messages API go to `answer`; claude's other requests are
// answered 404.
Answer messagesAPI(Answer answer);
// The model's calls of the Responses API go to `answer`; others are answered 404.
Answer responsesAPI(Answer answer);

} // namespace brinmoor::test::RealTools

#include "support/process_fixtures.h"
#include "support/relay_client.h"

#include <QTemporaryDir>

#include <memory>

namespace brinmoor::test {

// A world for the released tools: a relay, the agent with the tools first on its PATH
// and both model servers in its environment (its own HOME and TMPDIR), and a phone
// connected. Tests inherit it, install the tools in initTestCase and call startAll.
class RealToolsFixture {
protected:
    // `adjust` changes the agent's environment before it starts.
    bool startAll(const std::function<void(QProcessEnvironment&)>& adjust = {});
    // Stops the agent and checks that no process of its HOME is left; then lets all go.
    // False when something was left running.
    bool stopAll();
    QString project() const { return m_agent->repo.path() + QStringLiteral("/App"); }

    QString m_toolsBin;
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<QTemporaryDir> m_tmp;
    std::unique_ptr<FakeModelServer> m_anthropic;
    std::unique_ptr<FakeModelServer> m_openai;
    std::unique_ptr<RelayProcess> m_relay;
    std::unique_ptr<AgentProcess> m_agent;
    std::unique_ptr<RelayClient> m_phone;
    QProcessEnvironment m_environment; // what the agent was started with, besides its own
};

} // namespace brinmoor::test
