#pragma once

#include <QString>
#include <QStringList>

namespace brinmoor {

// Path completion and `cd` tracking for line-mode terminals, whose line editor lives on
// the phone. Free functions over what they read; the home folder is passed in.
namespace PathCompletion {

struct Completion {
    qsizetype replacementStart = 0;
    qsizetype replacementEnd = 0;
    QString replacement;
    QStringList suggestions;
};

// The first word of a command line: backslash escapes, quotes grouped and dropped, a
// blank or tab ends it.
QString firstShellToken(const QString& text);
// "~" and "~/…" from home, absolute as is, anything else under base; standardised.
QString resolvePath(const QString& path, const QString& base, const QString& home);
// Just after the last unescaped blank or tab (0 when there is none).
qsizetype pathTokenStart(const QString& text);
// The longest prefix that every item shares (by dropping characters of the first).
QString commonPrefix(const QStringList& items);
// Completes the path word that ends at the cursor, against the current directory.
// Hidden entries are offered only when the typed name begins with ".".
Completion pathCompletion(const QString& line, qsizetype cursor, const QString& currentDirectory, const QString& home);
// The directory the shell is in after the input's lines, following each line that is
// "cd" or begins with "cd " to an existing directory.
QString directoryAfterInput(const QString& input, const QString& currentDirectory, const QString& home);

} // namespace PathCompletion

} // namespace brinmoor
