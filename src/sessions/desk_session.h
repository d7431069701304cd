#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace brinmoor {

// A session of claude or codex found in the tool's own store on this computer, started
// at the desk or by the agent for the phone.
struct DeskSession {
    QString tool;  // "claude" or "codex"
    QString id;    // the claude session id, the codex thread id
    QString title; // the first prompt, cut
    QDateTime updatedAt;
    int messages = 0; // the prompts the user gave in it
    QString live;     // "idle", "busy" or "waiting" while a process holds it, else empty
    bool startedByPhone = false;
    QString cwd;  // the folder it runs in
    QString path; // its transcript
};

// One turn of a session as the page shows a chat.
struct SessionItem {
    QString kind;         // "user", "assistant", "tool_use", "tool_result"
    QString text;         // what was said; a tool's input or result, shortened
    QString name;         // the tool of a "tool_use"
    bool isError = false; // a "tool_result" that reports a failure
    QString at;           // when, as the tool wrote it (ISO 8601), or empty
};

} // namespace brinmoor
