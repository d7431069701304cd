#include "agent/task_output_answers.h"

#include <QJsonArray>

namespace brinmoor::TaskOutputAnswers {

QJsonObject output(const QString& taskId, const QString& readId, const OutputPage& page)
{
    QJsonObject message{{QStringLiteral("type"), QStringLiteral("task.output")},
                        {QStringLiteral("taskId"), taskId},
                        {QStringLiteral("readId"), readId}};
    if (!page.error.isEmpty()) {
        message.insert(QStringLiteral("error"), page.error);
        return message;
    }
    if (page.from)
        message.insert(QStringLiteral("from"), *page.from);
    message.insert(QStringLiteral("lines"), QJsonArray::fromStringList(page.lines));
    if (!page.from) {
        QJsonArray numbers;
        for (qint64 number : page.numbers)
            numbers.append(number);
        message.insert(QStringLiteral("numbers"), numbers);
    }
    message.insert(QStringLiteral("total"), page.total);
    message.insert(QStringLiteral("ended"), page.ended);
    return message;
}

QJsonObject kept(const QString& readId, const QList<KeptTask>& tasks)
{
    QJsonArray list;
    for (const KeptTask& task : tasks) {
        QJsonObject entry{{QStringLiteral("taskId"), task.taskId},           {QStringLiteral("kind"), task.kind},
                          {QStringLiteral("projectPath"), task.projectPath}, {QStringLiteral("status"), task.status},
                          {QStringLiteral("startedAt"), task.startedAt},     {QStringLiteral("lines"), task.keptLines}};
        if (task.exitCode)
            entry.insert(QStringLiteral("exitCode"), *task.exitCode);
        if (task.endedAt > 0)
            entry.insert(QStringLiteral("endedAt"), task.endedAt);
        if (!task.conversationId.isEmpty())
            entry.insert(QStringLiteral("conversationId"), task.conversationId);
        if (task.timedOut)
            entry.insert(QStringLiteral("timedOut"), true);
        list.append(entry);
    }
    return {{QStringLiteral("type"), QStringLiteral("tasks.kept")},
            {QStringLiteral("readId"), readId},
            {QStringLiteral("tasks"), list}};
}

} // namespace brinmoor::TaskOutputAnswers
