#pragma once

#include <QSslConfiguration>
#include <QTcpServer>

#include <optional>

namespace brinmoor::relay {

// The relay's listening socket. It hands out plain sockets, or with TLS on sockets that
// are ready to encrypt with the configuration of the moment: a reload replaces it for the
// connections that come after, and those already accepted keep theirs.
class RelayListener : public QTcpServer {
    Q_OBJECT

public:
    using QTcpServer::QTcpServer;

    void setTlsConfiguration(std::optional<QSslConfiguration> configuration);
    bool isTls() const { return m_tls.has_value(); }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    std::optional<QSslConfiguration> m_tls;
};

} // namespace brinmoor::relay
