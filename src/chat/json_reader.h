#pragma once

#include <QString>
#include <QStringView>

#include <vector>

namespace brinmoor {

// A strict, allocation-light JSON reader for the chat tools' event lines: it checks
// one JSON value in place (UTF-16, no copy) and lets the caller look members up and
// read the few strings it needs. QJsonDocument spends most of its time allocating a
// document the parser only glances at; this reads the same grammar several times
// faster. One reader is reused line after line.
class JsonReader {
public:
    enum class Kind : unsigned char { Object, Array, String, Number, True, False, Null };
    using Node = int; // an index into the parsed value; -1 is "absent"

    // Parses the value that begins at `start` (leading blanks allowed); what follows
    // it is not looked at. False when the text there is not valid JSON.
    bool parse(QStringView text, qsizetype start = 0);
    // Where the parsed value ended (one past its last character).
    qsizetype end() const { return m_end; }

    Node root() const { return m_nodes.empty() ? -1 : 0; }
    Kind kind(Node node) const { return m_nodes[size_t(node)].kind; }
    bool isString(Node node) const { return node >= 0 && kind(node) == Kind::String; }
    bool isObject(Node node) const { return node >= 0 && kind(node) == Kind::Object; }
    bool isArray(Node node) const { return node >= 0 && kind(node) == Kind::Array; }
    bool isTrue(Node node) const { return node >= 0 && kind(node) == Kind::True; }

    // The value of an object's member; -1 when absent or not an object. With repeated
    // keys the last one counts.
    Node member(Node object, QStringView key) const;
    // Calls `visit` with each element of an array, in order.
    template <typename Visit> void forEachElement(Node array, Visit&& visit) const
    {
        if (!isArray(array))
            return;
        const int end = m_nodes[size_t(array)].after;
        for (int child = array + 1; child < end; child = m_nodes[size_t(child)].after)
            visit(Node(child));
    }

    // The text of a string value (escapes resolved); empty for any other kind.
    QString string(Node node) const;
    // Whether a string value equals the text.
    bool stringEquals(Node node, QStringView text) const;

private:
    struct Entry {
        Kind kind;
        bool escaped;     // strings: holds backslash escapes
        qsizetype start;  // strings: first character inside the quotes
        qsizetype length; // strings: characters inside the quotes
        int after;        // index of the entry after this value's whole subtree
    };

    bool parseValue(int depth);
    bool parseString(qsizetype& start, qsizetype& length, bool& escaped);
    bool parseNumber();
    bool parseLiteral(QStringView word);
    void skipBlanks();
    QString unescaped(qsizetype start, qsizetype length) const;

    QStringView m_text;
    qsizetype m_pos = 0;
    qsizetype m_end = 0;
    std::vector<Entry> m_nodes;
};

} // namespace brinmoor
