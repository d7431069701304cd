#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

namespace brinmoor {

class TaskHost;

// Cuts one stream of a task child's output into task log lines. Without numbered lines
// each read is cut as it came (sendOutput): a line cut by a read boundary arrives as two.
// With numbered lines the piece after a read's last newline waits for the rest of its
// line: until the next read brings it, the output ends (`flush`), or a second passes with
// no more on its way ("Downloading… " before a pause is shown). A busy computer can keep
// a program from writing the rest of its line for tens of milliseconds; a shorter wait
// cut such lines in two.
class OutputLines : public QObject {
    Q_OBJECT

public:
    static constexpr int kWaitMilliseconds = 1000;

    OutputLines(TaskHost& host, QString taskId, QObject* parent = nullptr);

    void take(const QString& text);
    // Whether more of the child's output is on its way (it is held back, or its pipe
    // holds some): a piece then waits on.
    std::function<bool()> moreComing;
    // Sends the piece that waits, if any.
    void flush();

private:
    TaskHost& m_host;
    QString m_taskId;
    QString m_partial;
    QTimer m_wait;
};

} // namespace brinmoor
