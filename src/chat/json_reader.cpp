#include "chat/json_reader.h"

namespace brinmoor {

namespace {

// As deep as QJsonDocument goes; deeper input is refused instead of exhausting the stack.
constexpr int kMaxDepth = 1024;

bool isBlank(char16_t c)
{
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r';
}

int hexValue(char16_t c)
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

} // namespace

bool JsonReader::parse(QStringView text, qsizetype start)
{
    m_text = text;
    m_pos = start;
    m_nodes.clear();
    skipBlanks();
    if (!parseValue(0)) {
        m_nodes.clear();
        return false;
    }
    m_end = m_pos;
    return true;
}

void JsonReader::skipBlanks()
{
    const char16_t* data = m_text.utf16();
    while (m_pos < m_text.size() && isBlank(data[m_pos]))
        ++m_pos;
}

bool JsonReader::parseValue(int depth)
{
    if (depth > kMaxDepth || m_pos >= m_text.size())
        return false;
    const char16_t c = m_text.utf16()[m_pos];
    const int index = int(m_nodes.size());
    switch (c) {
    case u'{':
    case u'[': {
        const bool object = c == u'{';
        m_nodes.push_back({object ? Kind::Object : Kind::Array, false, 0, 0, 0});
        ++m_pos;
        skipBlanks();
        const char16_t close = object ? u'}' : u']';
        if (m_pos < m_text.size() && m_text.utf16()[m_pos] == close) {
            ++m_pos;
        } else {
            while (true) {
                if (object) {
                    skipBlanks();
                    if (m_pos >= m_text.size() || m_text.utf16()[m_pos] != u'"' || !parseValue(depth + 1))
                        return false;
                    skipBlanks();
                    if (m_pos >= m_text.size() || m_text.utf16()[m_pos] != u':')
                        return false;
                    ++m_pos;
                }
                skipBlanks();
                if (!parseValue(depth + 1))
                    return false;
                skipBlanks();
                if (m_pos >= m_text.size())
                    return false;
                const char16_t next = m_text.utf16()[m_pos++];
                if (next == close)
                    break;
                if (next != u',')
                    return false;
            }
        }
        m_nodes[size_t(index)].after = int(m_nodes.size());
        return true;
    }
    case u'"': {
        qsizetype start = 0;
        qsizetype length = 0;
        bool escaped = false;
        if (!parseString(start, length, escaped))
            return false;
        m_nodes.push_back({Kind::String, escaped, start, length, index + 1});
        return true;
    }
    case u't': m_nodes.push_back({Kind::True, false, 0, 0, index + 1}); return parseLiteral(u"true");
    case u'f': m_nodes.push_back({Kind::False, false, 0, 0, index + 1}); return parseLiteral(u"false");
    case u'n': m_nodes.push_back({Kind::Null, false, 0, 0, index + 1}); return parseLiteral(u"null");
    default: m_nodes.push_back({Kind::Number, false, 0, 0, index + 1}); return parseNumber();
    }
}

bool JsonReader::parseString(qsizetype& start, qsizetype& length, bool& escaped)
{
    const char16_t* data = m_text.utf16();
    const qsizetype size = m_text.size();
    ++m_pos; // the opening quote
    start = m_pos;
    escaped = false;
    while (m_pos < size) {
        const char16_t c = data[m_pos];
        if (c == u'"') {
            length = m_pos - start;
            ++m_pos;
            return true;
        }
        if (c < 0x20)
            return false;
        if (c == u'\\') {
            escaped = true;
            if (++m_pos >= size)
                return false;
            switch (data[m_pos]) {
            case u'"':
            case u'\\':
            case u'/':
            case u'b':
            case u'f':
            case u'n':
            case u'r':
            case u't': break;
            case u'u':
                for (int k = 1; k <= 4; ++k) {
                    if (m_pos + k >= size || hexValue(data[m_pos + k]) < 0)
                        return false;
                }
                m_pos += 4;
                break;
            default: return false;
            }
        }
        ++m_pos;
    }
    return false;
}

bool JsonReader::parseNumber()
{
    const char16_t* data = m_text.utf16();
    const qsizetype size = m_text.size();
    const auto digits = [&] {
        const qsizetype from = m_pos;
        while (m_pos < size && data[m_pos] >= u'0' && data[m_pos] <= u'9')
            ++m_pos;
        return m_pos > from;
    };
    if (m_pos < size && data[m_pos] == u'-')
        ++m_pos;
    if (m_pos < size && data[m_pos] == u'0')
        ++m_pos;
    else if (!digits())
        return false;
    if (m_pos < size && data[m_pos] == u'.') {
        ++m_pos;
        if (!digits())
            return false;
    }
    if (m_pos < size && (data[m_pos] == u'e' || data[m_pos] == u'E')) {
        ++m_pos;
        if (m_pos < size && (data[m_pos] == u'+' || data[m_pos] == u'-'))
            ++m_pos;
        if (!digits())
            return false;
    }
    return true;
}

bool JsonReader::parseLiteral(QStringView word)
{
    if (m_text.mid(m_pos, word.size()) != word)
        return false;
    m_pos += word.size();
    return true;
}

JsonReader::Node JsonReader::member(Node object, QStringView key) const
{
    if (!isObject(object))
        return -1;
    Node found = -1;
    const int end = m_nodes[size_t(object)].after;
    for (int keyNode = object + 1; keyNode < end;) {
        const int valueNode = m_nodes[size_t(keyNode)].after;
        if (stringEquals(keyNode, key))
            found = valueNode;
        keyNode = m_nodes[size_t(valueNode)].after;
    }
    return found;
}

QString JsonReader::string(Node node) const
{
    if (!isString(node))
        return QString();
    const Entry& entry = m_nodes[size_t(node)];
    if (!entry.escaped)
        return m_text.mid(entry.start, entry.length).toString();
    return unescaped(entry.start, entry.length);
}

bool JsonReader::stringEquals(Node node, QStringView text) const
{
    if (!isString(node))
        return false;
    const Entry& entry = m_nodes[size_t(node)];
    if (!entry.escaped)
        return m_text.mid(entry.start, entry.length) == text;
    return unescaped(entry.start, entry.length) == text;
}

QString JsonReader::unescaped(qsizetype start, qsizetype length) const
{
    QString out;
    out.reserve(length);
    const char16_t* data = m_text.utf16() + start;
    for (qsizetype i = 0; i < length; ++i) {
        const char16_t c = data[i];
        if (c != u'\\') {
            out.append(QChar(c));
            continue;
        }
        const char16_t e = data[++i];
        switch (e) {
        case u'b': out.append(QChar(u'\b')); break;
        case u'f': out.append(QChar(u'\f')); break;
        case u'n': out.append(QChar(u'\n')); break;
        case u'r': out.append(QChar(u'\r')); break;
        case u't': out.append(QChar(u'\t')); break;
        case u'u': {
            char16_t unit = 0;
            for (int k = 1; k <= 4; ++k)
                unit = char16_t(unit * 16 + hexValue(data[i + k]));
            out.append(QChar(unit));
            i += 4;
            break;
        }
        default: out.append(QChar(e)); break; // " \ /
        }
    }
    return out;
}

} // namespace brinmoor
