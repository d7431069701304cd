#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

// Text helpers for what the phone shows: chat bubbles, the proposal commentary, its
// one-line summary and the completion message. Lengths are counted in user-perceived
// characters (extended grapheme clusters), so a cut never splits one.
namespace NarrativeText {

constexpr int kNarrativeLimit = 1200;
constexpr int kSummaryLimit = 220;

// Sanitized for chat, machine-output lines dropped, trimmed, cut to `maxLength` characters
// (then trimmed again and given "…").
QString normalizeNarrativeText(const QString& text, int maxLength);

// Whether the text is machine output only (JSON events, command echoes).
bool looksLikeStructuredCodexOutput(const QString& text);

struct ProposalOutput {
    QString responseText;
    QStringList diagnostics;
};
// The assistant's narrative and diagnostics out of a proposal run's raw output.
ProposalOutput parseCodexProposalOutput(const QString& output);

// Whether the text is boiler-plate that explains nothing.
bool looksLikeGenericProposalFallback(const QString& text);

// The normalised text when it says something; absent for empty or boiler-plate text.
std::optional<QString> noDiffCommentary(const QString& modelOutput);

// The first line of the commentary, cut to 220 characters.
QString proposalSummary(const QString& commentary);

// What the phone is told after the diff was applied.
QString applyCompletionSummary(const QStringList& files, const QString& proposalCommentary);

// User-perceived characters in a text.
qsizetype graphemeCount(const QString& text);
// The first `count` user-perceived characters of a text.
QString graphemePrefix(const QString& text, qsizetype count);

} // namespace NarrativeText

} // namespace brinmoor
