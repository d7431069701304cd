#pragma once

#include "base/utf8_stream_decoder.h"
#include "config/local_server_settings.h"
#include "config/machine.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <optional>

class QProcess;

namespace brinmoor {

// Runs the companion server (`brinmoor-server`) beside the agent on a free loopback
// port with the shared token, relays its output (each read, trimmed, after
// "[BrinmoorServer] ") to the agent's standard output, and reports its state as status
// texts.
class LocalServerRuntime : public QObject {
    Q_OBJECT

public:
    using Status = std::function<void(const QString&)>;

    explicit LocalServerRuntime(QObject* parent = nullptr);
    ~LocalServerRuntime() override;

    // Starts the server (after stopping an earlier one) and returns the port it was given,
    // or the one asked for when nothing could be started (a token shorter than the server
    // takes is not given to it). `server` says what it is told besides port and token
    // (TLS, public URL, trusted proxies, allowed hosts).
    int start(int port, const QString& token, Status status, const LocalServerSettings& server = {});
    // Ends the server.
    void stop();
    bool isRunning() const;

    // The first port among the one asked for and 8080 to 8090 that can be bound on
    // 127.0.0.1; the one asked for when none can.
    static int resolveAvailablePort(int startingAt);
    // The first executable of: $BRINMOOR_SERVER_PATH, brinmoor-server in the agent's
    // bundle (beside its real file), beside the path the agent was started by, and
    // server/brinmoor-server under the default repository root and under the current folder.
    static std::optional<QString> resolveServerBinaryPath();
    static std::optional<QString> resolveServerBinaryPath(const Environment& env, const Machine& machine);

    // Where relayed output goes, one call per read (standard output, followed by a
    // line end, unless a test says otherwise).
    std::function<void(const QString&)> printLine;

private:
    void relay();

    QPointer<QProcess> m_process;
    Utf8StreamDecoder m_decoder;
};

} // namespace brinmoor
