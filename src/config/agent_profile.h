#pragma once

#include "config/machine.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

class SettingsStore;

// The agent's working configuration, loaded afresh for every connect, task and
// terminal session, so that a changed setting applies to the next one.
struct AgentProfile {
    QString profileId;
    QString repoRoot;
    QString buildTemplate;
    QString claudeChatTemplate;
    QString codexChatTemplate;
    QString terminalChatTemplate;
    QString aiPlanTemplate;
    QString aiApplyTemplate;
    QString mcpApproverPath;
    QStringList projects;
    std::optional<QString> createProjectRoot;
    QStringList actions;

    static AgentProfile load(const SettingsStore& defaults, const Environment& env, const Machine& machine);
};

namespace ProfileDefaults {
inline constexpr auto profileId = "ios-local";
inline constexpr auto buildTemplate = "./deploy.sh {{projectArg}} --no-password";
inline constexpr auto claudeChatTemplate =
    "claude -p --verbose --permission-prompt-tool mcp__approver__request_permission "
    "--mcp-config {{mcpConfigPath}} --output-format stream-json {{prompt}}";
inline constexpr auto codexChatTemplate =
    "codex -a on-request exec --json --skip-git-repo-check --color never {{prompt}}";
inline constexpr auto terminalChatTemplate = "claude";
inline constexpr auto aiPlanTemplate = "codex exec --full-auto --skip-git-repo-check --color never --json {{prompt}}";
// The task actions every agent offers, in this order.
QStringList actions();
} // namespace ProfileDefaults

} // namespace brinmoor
