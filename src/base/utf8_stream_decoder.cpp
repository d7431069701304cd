#include "base/utf8_stream_decoder.h"

#include <cstdint>
#include <cstring>

namespace brinmoor {

namespace {

// Length of the sequence a lead byte starts; 0 for a byte that cannot lead.
int sequenceLength(unsigned char lead)
{
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    if (lead >= 0xF0 && lead <= 0xF4)
        return 4;
    return 0;
}

} // namespace

bool Utf8StreamDecoder::isValid(const char* data, qsizetype size)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    qsizetype i = 0;
    while (i < size) {
        // ASCII runs dominate command output: check eight bytes at a time.
        if (i + 8 <= size) {
            std::uint64_t word;
            std::memcpy(&word, bytes + i, 8);
            if ((word & 0x8080808080808080ULL) == 0) {
                i += 8;
                continue;
            }
        }
        const unsigned char lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        const int length = sequenceLength(lead);
        if (length == 0 || i + length > size)
            return false;
        const unsigned char second = bytes[i + 1];
        // Reject overlong forms, surrogates and code points above U+10FFFF.
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
            (lead == 0xF4 && second > 0x8F))
            return false;
        for (int k = 1; k < length; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80)
                return false;
        }
        i += length;
    }
    return true;
}

qsizetype Utf8StreamDecoder::incompleteTailLength(const char* data, qsizetype size)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    // A character has at most 4 bytes, so only the last 3 can be an incomplete one.
    for (qsizetype back = 1; back <= 3 && back <= size; ++back) {
        const unsigned char byte = bytes[size - back];
        if ((byte & 0xC0) == 0x80)
            continue; // a continuation byte: look further back for its lead
        const int length = sequenceLength(byte);
        return length > back ? back : 0;
    }
    return 0;
}

std::optional<QString> Utf8StreamDecoder::decode(const char* data, qsizetype size)
{
    QByteArray joined;
    const char* bytes = data;
    qsizetype count = size;
    if (!m_pending.isEmpty()) {
        joined = m_pending + QByteArray::fromRawData(data, size);
        m_pending.clear();
        bytes = joined.constData();
        count = joined.size();
    }
    const qsizetype tail = incompleteTailLength(bytes, count);
    const qsizetype complete = count - tail;
    if (!isValid(bytes, complete))
        return std::nullopt;
    if (tail > 0)
        m_pending = QByteArray(bytes + complete, tail);
    return QString::fromUtf8(bytes, complete);
}

} // namespace brinmoor
