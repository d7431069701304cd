#pragma once

#include <QJsonObject>
#include <QStringList>

#include <optional>

namespace brinmoor {

struct AgentCommand;

// What a server offers beyond the agent protocol. Our relay announces it in its hello,
//   {"type":"agent.hello","payload":{"seq":N,"features":["seq","ack","grace","state","pacing",…]}},
// and the agent uses nothing that the hello does not name. A hello without a list of
// features, or no hello at all, offers nothing: the agent then speaks the plain protocol.
struct ServerFeatures {
    // The agent numbers its messages and opens each connection's numbered stream with
    // "agent.stream"; "seq" of the hello is the newest message the server has.
    bool seq = false;
    // The server confirms what it has ("agent.ack"): the agent keeps what is unconfirmed,
    // and what it says while no server listens, and sends it again on the next
    // connection. Needs "seq".
    bool ack = false;
    // A task outlives a lost connection for the grace time.
    bool grace = false;
    // The agent restates what it runs ("agent.state") after registering.
    bool state = false;
    // Readers pace terminals ("terminal.ack"); live "terminal.output" carries "offset".
    bool pacing = false;
    // Each task ends once: a cancelled task with "task.cancelled" alone, when its process
    // has exited.
    bool end = false;
    // Clients ask for the projects under the repository root ("projects.list"); the agent
    // answers "projects.listed".
    bool projects = false;
    // A proposal may be approved in part: "task.awaiting_approval" says so with
    // "fileChoice", and the agent applies the files a "task.approval" names.
    bool files = false;
    // The agent keeps each task's output: "task.log" lines of it carry their "number",
    // readers pace it ("task.ack"), and clients read it back ("task.output.read",
    // "tasks.list").
    bool lines = false;
    // The agent lists and reads the coding assistants' sessions of a project, found on
    // the computer: "sessions.list", "sessions.read".
    bool sessions = false;
    // The newest seq the server has of this agent (0: none).
    qint64 serverHas = 0;

    // The names, in the order the relay announces them.
    static const QStringList& names();
    // Everything: what our relay offers.
    static ServerFeatures all();
    // What a hello announces; absent for a hello that announces nothing.
    static std::optional<ServerFeatures> fromHello(const AgentCommand& hello);
    // The hello that announces these features.
    QJsonObject hello() const;
    // Whether the agent keeps what it says for this server until it is confirmed.
    bool keepsUnconfirmed() const { return seq && ack; }
    // The names of the features offered, in the order of names().
    QStringList named() const;
};

} // namespace brinmoor
