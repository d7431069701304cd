#pragma once

#include <QtGlobal>

namespace brinmoor {

// The fewest characters a shared token may have. The relay refuses to start with fewer,
// and the agent to start a relay with them: a token someone chose as a word is guessed
// long before any pace of guessing matters. The agent's own are 32 hexadecimal digits.
inline constexpr qsizetype kMinimumTokenLength = 24;

} // namespace brinmoor
