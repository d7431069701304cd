#pragma once

#include "execution/task_output_store.h"

#include <QJsonObject>
#include <QList>
#include <QString>

namespace brinmoor::TaskOutputAnswers {

// "task.output": the lines a "task.output.read" asked for, or why there are none.
QJsonObject output(const QString& taskId, const QString& readId, const OutputPage& page);
// "tasks.kept": the tasks whose output the agent keeps, newest first.
QJsonObject kept(const QString& readId, const QList<KeptTask>& tasks);

} // namespace brinmoor::TaskOutputAnswers
