#include "relay_listener.h"

#include <QSslSocket>

#include <unistd.h>

namespace brinmoor::relay {

void RelayListener::setTlsConfiguration(std::optional<QSslConfiguration> configuration)
{
    m_tls = std::move(configuration);
}

void RelayListener::incomingConnection(qintptr descriptor)
{
    if (!m_tls) {
        QTcpServer::incomingConnection(descriptor);
        return;
    }
    auto* socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        ::close(int(descriptor));
        return;
    }
    socket->setSslConfiguration(*m_tls);
    addPendingConnection(socket);
}

} // namespace brinmoor::relay
