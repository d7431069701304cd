#pragma once

#include "shared_frames.h"

#include <QByteArray>

#include <functional>
#include <vector>

namespace brinmoor::relay {

class RelayConnection;

// The clients' WebSockets, and what goes to all of them: a frame is held once for every
// client that has to wait for it (SharedFrames), and let go once none does. A client
// that closes while a frame is being sent is only blanked, and the list tidied after.
class ClientBroadcast {
public:
    // How one client takes a frame that goes to many: whether it is sent it.
    using Filter = std::function<bool(RelayConnection& client)>;

    void add(RelayConnection* client);
    void remove(RelayConnection* client);
    bool empty() const { return m_clients.empty(); }
    // The clients, a copy: sending may close some.
    std::vector<RelayConnection*> clients() const;

    // Sends every client the frame, or those `wants` says take it.
    void send(const QByteArray& frame, const Filter& wants = {});
    // Sends every client a text message, when there is any client.
    void sendText(const QByteArray& text);
    // The shared frames no client waits for any more go.
    void releaseSharedFrames();

private:
    std::vector<RelayConnection*> m_clients;
    int m_sending = 0; // while > 0, closed clients are only blanked in m_clients
    SharedFrames m_sharedFrames;
};

} // namespace brinmoor::relay
