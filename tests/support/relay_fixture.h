#pragma once

#include "support/process_fixtures.h"

#include <QByteArrayView>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <memory>

namespace brinmoor::test {

// The object a JSON text holds; empty when it holds none.
inline QJsonObject json(QByteArrayView text)
{
    return QJsonDocument::fromJson(text.toByteArray()).object();
}

// A test's relay: a `brinmoor-server` process, started afresh by each startRelay (the one
// before it is stopped) and stopped by stopRelay.
class RelayFixture {
protected:
    // Starts a relay with the environment entries ("NAME=value") added, and the token
    // when one is given.
    bool startRelay(const QStringList& env = {}, const QString& token = {})
    {
        m_relay = std::make_unique<RelayProcess>();
        if (!token.isEmpty())
            m_relay->token = token;
        return m_relay->start(environment(env));
    }
    void stopRelay() { m_relay.reset(); }

    std::unique_ptr<RelayProcess> m_relay;
};

} // namespace brinmoor::test
