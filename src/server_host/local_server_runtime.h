#pragma once

#include "base/utf8_stream_decoder.h"
#include "config/local_server_settings.h"
#include "config/machine.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <functional>
#include <optional>

namespace brinmoor {

class ProcessGroup;

// How long the agent waits before it starts a server that ended by itself again: 1 s,
// doubling up to 60 s, and 1 s again after a server that ran for a minute.
class RestartBackoff {
public:
    static constexpr int kFirstMs = 1'000;
    static constexpr int kLongestMs = 60'000;
    static constexpr qint64 kSteadyMs = 60'000;

    // The wait before the next start, after a server that ran `ranMs`.
    int next(qint64 ranMs);
    void reset() { m_nextMs = kFirstMs; }

private:
    int m_nextMs = kFirstMs;
};

// Runs the companion server (`brinmoor-server`) beside the agent on a free loopback
// port with the shared token, relays its output (each read, trimmed, after
// "[BrinmoorServer] ") to the agent's standard output, and reports its state as status
// texts. A server that ends without being asked to ("Server stopped (N)") is started
// again after a wait (see RestartBackoff), each start reported like the first.
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
    // Ends the server; it is not started again.
    void stop();
    bool isRunning() const;
    // Whether a server that ended by itself is to be started again, and in how long.
    bool restartPending() const { return m_restart.isActive(); }
    int restartDelayMs() const { return m_restart.interval(); }

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
    // Launches the server on `m_port` without waiting for it; a server that cannot be
    // run is reported, and with `retry` tried again later.
    void launch(const QString& binary, bool retry);
    void failed(ProcessGroup* server, bool retry);
    void ended(ProcessGroup* server, int exitCode);

    // SIGTERM to a server that is stopped, SIGKILL to what is left of it after this.
    static constexpr int kStopGraceMilliseconds = 3000;

    QPointer<ProcessGroup> m_server;
    Utf8StreamDecoder m_decoder;
    // What the server is started with, again after it ends by itself.
    int m_port = 0;
    QString m_token;
    Status m_status;
    LocalServerSettings m_settings;
    QElapsedTimer m_running;
    RestartBackoff m_backoff;
    QTimer m_restart;
};

} // namespace brinmoor
