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
