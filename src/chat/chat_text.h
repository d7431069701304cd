#pragma once

#include <QString>

namespace brinmoor::ChatText {

// Text as a chat bubble shows it: CR LF and lone CR become LF; control characters other
// than tab and LF, and DEL, are removed; everything from U+0080 upwards is kept.
QString sanitizeForChat(const QString& text);

} // namespace brinmoor::ChatText
