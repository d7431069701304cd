#pragma once

#include "config/machine.h"

#include <QString>

namespace brinmoor::ClaudeSessionStore {

// Where claude keeps its configuration and sessions: $CLAUDE_CONFIG_DIR, else
// ~/.claude; empty without either.
QString configDirectory(const Environment& env, const QString& home);

// The folder name claude gives the sessions of a working folder: the path with every
// character other than an ASCII letter or digit replaced by "-"; beyond 200 characters
// cut to 200 and followed by "-" and the base-36 hash of the path claude computes.
QString projectFolderName(const QString& workingDir);

// Whether the text is a session id as claude writes them: a UUID in its canonical form.
bool isSessionId(const QString& text);

// Whether claude has a session with this id for the working folder (its session file
// exists, under the folder as given or with its links resolved, as claude sees it).
bool hasSession(const QString& configDirectory, const QString& workingDir, const QString& sessionId);

} // namespace brinmoor::ClaudeSessionStore
