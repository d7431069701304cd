#include "proposals/narrative_text.h"

#include "chat/chat_json_line_parser.h"
#include "chat/chat_text.h"

#include <QTextBoundaryFinder>

namespace brinmoor::NarrativeText {

namespace {

const QStringList kNoisePrefixes = {QStringLiteral("{\"type\":"), QStringLiteral("[command"), QStringLiteral("^D")};

bool startsWithAny(const QString& text, const QStringList& prefixes)
{
    for (const QString& prefix : prefixes) {
        if (text.startsWith(prefix))
            return true;
    }
    return false;
}

} // namespace

qsizetype graphemeCount(const QString& text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() > 0)
        ++count;
    return count;
}

QString graphemePrefix(const QString& text, qsizetype count)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype end = 0;
    for (qsizetype i = 0; i < count; ++i) {
        const qsizetype next = finder.toNextBoundary();
        if (next < 0)
            break;
        end = next;
    }
    return text.left(end);
}

QString normalizeNarrativeText(const QString& text, int maxLength)
{
    const QStringList lines = ChatText::sanitizeForChat(text).split(QLatin1Char('\n'));
    QStringList kept;
    for (const QString& line : lines) {
        const QString trimmed = line.trimmed();
        if (!trimmed.isEmpty() && !startsWithAny(trimmed, kNoisePrefixes))
            kept.append(trimmed);
    }
    const QString joined = kept.join(QLatin1Char('\n')).trimmed();
    // Cheap test first: a text with no more UTF-16 units than the limit is short enough.
    if (joined.size() <= maxLength || graphemeCount(joined) <= maxLength)
        return joined;
    return graphemePrefix(joined, maxLength).trimmed() + QStringLiteral("…");
}

bool looksLikeStructuredCodexOutput(const QString& text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return false;
    if (trimmed.contains(QLatin1String("{\"type\":")) || trimmed.contains(QLatin1String("\"type\":\"")))
        return true;
    const QStringList lines = trimmed.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        const QString t = line.trimmed();
        if (!t.startsWith(QLatin1Char('{')) && !t.startsWith(QLatin1String("[command")) &&
            !t.startsWith(QLatin1String("^D")))
            return false;
    }
    return true;
}

ProposalOutput parseCodexProposalOutput(const QString& output)
{
    const QString trimmed = output.trimmed();
    if (trimmed.isEmpty())
        return {};
    ChatJSONLineParser parser(ChatJSONProvider::codex);
    const ParseResult processed = parser.process(output);
    const ParseResult finished = parser.finish();

    const QString a = processed.finalText.value_or(QString()).trimmed();
    const QString b = finished.finalText.value_or(QString()).trimmed();
    const QString c = (processed.deltas + finished.deltas).join(QString()).trimmed();
    // Streamed pieces win over a final text; the final text seen at the end wins over
    // one seen while processing.
    const QString chosen = !c.isEmpty() ? c : (!b.isEmpty() ? b : a);

    ProposalOutput result;
    for (const QString& diagnostic : processed.diagnostics + finished.diagnostics) {
        const QString t = diagnostic.trimmed();
        if (!t.isEmpty())
            result.diagnostics.append(t);
    }
    result.responseText = normalizeNarrativeText(chosen, kNarrativeLimit);
    if (!result.responseText.isEmpty() || !result.diagnostics.isEmpty())
        return result;
    // The tool printed plain prose rather than events.
    if (!looksLikeStructuredCodexOutput(trimmed))
        return {normalizeNarrativeText(trimmed, kNarrativeLimit), {}};
    return {};
}

bool looksLikeGenericProposalFallback(const QString& text)
{
    const QString t = text.trimmed().toLower();
    return t == QLatin1String("proposed changes are ready for review.") ||
           t.startsWith(QLatin1String("proposed changes for ")) ||
           t.contains(QLatin1String("satisfy the latest request")) ||
           t.contains(QLatin1String("keeps the change scoped")) ||
           t.contains(QLatin1String("avoids unrelated edits")) ||
           t.startsWith(QLatin1String("what i will change: i will update "));
}

std::optional<QString> noDiffCommentary(const QString& modelOutput)
{
    const QString text = normalizeNarrativeText(modelOutput, kNarrativeLimit);
    if (text.isEmpty() || looksLikeGenericProposalFallback(text))
        return std::nullopt;
    return text;
}

QString proposalSummary(const QString& commentary)
{
    const QString t = normalizeNarrativeText(commentary, kSummaryLimit);
    const QStringList lines = t.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        const QString trimmed = line.trimmed();
        if (!trimmed.isEmpty())
            return trimmed;
    }
    return t;
}

QString applyCompletionSummary(const QStringList& files, const QString& proposalCommentary)
{
    const QString c = normalizeNarrativeText(proposalCommentary, kNarrativeLimit);
    const qsizetype n = files.size();
    if (!c.isEmpty() && n > 0)
        return QStringLiteral("Applied the approved changes to %1 file%2.\n\n")
                   .arg(n)
                   .arg(n == 1 ? QString() : QStringLiteral("s")) +
               c;
    if (!c.isEmpty())
        return QStringLiteral("Applied the approved changes.\n\n") + c;
    if (n == 0)
        return QStringLiteral("Applied approved changes.");
    if (n == 1)
        return QStringLiteral("Applied approved changes to ") + files.first() + QLatin1Char('.');
    return QStringLiteral("Applied approved changes to %1 files.").arg(n);
}

} // namespace brinmoor::NarrativeText
