#pragma once

#include <QMap>
#include <QString>

namespace brinmoor {

// The process environment as a string map.
using Environment = QMap<QString, QString>;

// What the configuration reads from the machine it runs on. Tests build one by
// hand; `current()` reads the real machine.
struct Machine {
    QString executablePath;   // the running program, absolute
    QString currentDirectory; // the process's working directory
    QString homeDirectory;    // the current user's home folder
    QString hostName;         // the computer's name as the user sees it; may be empty

    static Machine current();
};

// The real process environment.
Environment currentEnvironment();

} // namespace brinmoor
