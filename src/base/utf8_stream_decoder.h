#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <optional>

namespace brinmoor {

// Decodes a byte stream read in arbitrary pieces as UTF-8. A character cut at the
// end of a read waits for the next read instead of spoiling it; a read holding bytes
// that are not UTF-8 at all is dropped whole.
class Utf8StreamDecoder {
public:
    // The text of this read (with any carried tail in front), or nothing when the
    // read is not valid UTF-8.
    std::optional<QString> decode(const char* data, qsizetype size);
    // Whether an incomplete character is waiting for its remaining bytes.
    bool hasPendingBytes() const { return !m_pending.isEmpty(); }
    void reset() { m_pending.clear(); }

    // Whether the bytes are complete, valid UTF-8.
    static bool isValid(const char* data, qsizetype size);
    // How many bytes at the end of valid-looking data form an incomplete character.
    static qsizetype incompleteTailLength(const char* data, qsizetype size);

private:
    QByteArray m_pending;
};

// Whether the bytes are complete, valid UTF-8 (the one check the agent and the relay use).
inline bool isValidUtf8(QByteArrayView text)
{
    return Utf8StreamDecoder::isValid(text.data(), text.size());
}

} // namespace brinmoor
