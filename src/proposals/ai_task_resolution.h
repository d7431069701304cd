#pragma once

#include "execution/execution_resolution.h"

#include <QString>

#include <optional>

namespace brinmoor {

struct AgentProfile;

// How an "ai_task" runs: as a proposal made in a workspace copy and applied after
// (optional) approval, or as a plain command in the project.
struct AITaskExecutionStrategy {
    enum class Kind { proposalApproval, directCommand };
    Kind kind = Kind::directCommand;
    bool requiresApproval = false;

    bool isProposal() const { return kind == Kind::proposalApproval; }
    // "proposalApproval(requiresApproval: true)" or "directCommand", as logs show it.
    QString description() const;
    bool operator==(const AITaskExecutionStrategy&) const = default;
};

namespace AITaskResolution {

// The preamble put in front of the request when codex runs in "apply" mode.
extern const QString systemExecutionModeText;
// The command of every claude ai_task.
extern const QString claudeTemplate;

AITaskExecutionStrategy aiTaskExecutionStrategy(const std::optional<QString>& system,
                                                const std::optional<QString>& mode,
                                                const std::optional<QString>& approvalMode);

// The shell text and project folder of an ai_task. Throws AgentError (codes 4, 5, 6, 12).
ResolvedExecution resolveAITaskExecution(const AgentProfile& profile, const std::optional<QString>& system,
                                         const std::optional<QString>& mode, const QString& projectPath,
                                         const QString& prompt);

} // namespace AITaskResolution

} // namespace brinmoor
