#pragma once

#include <QString>

namespace brinmoor {

// Text helpers for what the phone shows in a chat bubble.
namespace NarrativeText {

// CR LF and lone CR become LF; control characters other than tab and LF, and DEL,
// are removed; everything from U+0080 upwards is kept.
QString sanitizeForChat(const QString& text);

} // namespace NarrativeText

} // namespace brinmoor
