#pragma once

#include <QString>

#include <exception>

namespace brinmoor {

// A failure of one of the agent's own operations, with its domain, code and message.
// Thrown by resolution functions and caught by dispatch, which turns it into the
// protocol's failure message; it never leaves a slot or a callback.
struct AgentError : std::exception {
    QString domain;
    int code = 0;
    QString message;

    AgentError(QString errorDomain, int errorCode, QString text)
        : domain(std::move(errorDomain)), code(errorCode), message(std::move(text))
    {
    }
    const char* what() const noexcept override { return "AgentError"; }
};

// An error of the "AgentRuntime" domain.
inline AgentError runtimeError(int code, const QString& message)
{
    return AgentError(QStringLiteral("AgentRuntime"), code, message);
}

} // namespace brinmoor
