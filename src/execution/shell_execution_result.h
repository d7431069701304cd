#pragma once

#include <QString>

namespace brinmoor {

// What a shell text run to completion produced.
struct ShellExecutionResult {
    qint32 exitCode = 0;
    // The output texts; not named stdout/stderr, which the C library claims as macros.
    QString standardOutput;
    QString standardError;

    // Both texts for display: standard output, then standard error on a new line.
    QString combinedOutput() const
    {
        if (standardError.isEmpty())
            return standardOutput;
        if (standardOutput.isEmpty())
            return standardError;
        return standardOutput + QLatin1Char('\n') + standardError;
    }
};

} // namespace brinmoor
