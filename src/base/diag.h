#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

#include <functional>

namespace brinmoor {

// The agent's one logger: writes "[BrinmoorMacAgent][<UTC time>] <text>" as one line
// on standard output and flushes it. Control characters in the text are written as
// escapes (`escapeForLog`), so no value can start a line of its own. Safe from any thread.
void diag(const QString& text);

// Control characters (C0, DEL, C1) and the Unicode line and paragraph separators as
// escapes: "\n", "\r", "\t", else "\u" and four hexadecimal digits.
QString escapeForLog(QStringView text);

// A value that came from outside (a command, a path, an id), cut to its first 1 KiB of
// UTF-8 and "… (N more bytes)": a log line never carries a whole megabyte command.
QString logValue(QStringView value);

// The line `diag` writes for a text at the current time.
QString diagLine(const QString& text);

// Records every diag text while it lives (the lines still go to standard output),
// so that tests can compare the log with the exact expected text.
class DiagRecorder {
public:
    DiagRecorder();
    ~DiagRecorder();
    DiagRecorder(const DiagRecorder&) = delete;
    DiagRecorder& operator=(const DiagRecorder&) = delete;

    // The texts logged so far, without the time stamp prefix.
    QStringList texts() const;
    bool contains(const QString& text) const { return texts().contains(text); }

private:
    friend void diag(const QString& text);
    void record(const QString& text);
    QStringList m_texts;
};

} // namespace brinmoor
