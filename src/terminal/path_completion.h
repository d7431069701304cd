#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

// Path completion and `cd` tracking for line-mode terminals, whose line editor lives on
// the phone. Free functions over what they read; the home folder is passed in.
//
// The cursor and the replacement's start and end count Unicode code points, as the
// phone counts the characters of its line: a name with an emoji (two UTF-16 units)
// or a combining mark (a character of its own) is then cut where the phone cuts it.
namespace PathCompletion {

struct Completion {
    qsizetype replacementStart = 0;
    qsizetype replacementEnd = 0;
    QString replacement;
    QStringList suggestions;
};

// The first word of a command line: a backslash makes the next character literal, a
// single or a double quote switches quoting on or off (whichever quote opened it) and
// is dropped, and outside quotes a blank or tab ends it.
QString firstShellToken(const QString& text);
// "~" and "~/…" from home, absolute as is, anything else under base; standardised.
QString resolvePath(const QString& path, const QString& base, const QString& home);
// Just after the last unescaped blank or tab (0 when there is none), as an index into
// the text.
qsizetype pathTokenStart(const QString& text);
// The longest prefix that every item shares (by dropping code points of the first).
QString commonPrefix(const QStringList& items);
// Completes the path word that ends at the cursor (the end of the line when there is
// none), against the current directory. Hidden entries are offered only when the
// typed name begins with ".". When the folder cannot be listed or nothing matches,
// there are no suggestions and the replacement is the word as typed, so the line
// stays as it was.
Completion pathCompletion(const QString& line, std::optional<qint64> cursor, const QString& currentDirectory,
                          const QString& home);
// The directory the shell is in after the input's lines, following each line that is
// "cd" or begins with "cd " to an existing directory.
QString directoryAfterInput(const QString& input, const QString& currentDirectory, const QString& home);

} // namespace PathCompletion

} // namespace brinmoor
