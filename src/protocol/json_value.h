#pragma once

#include <QList>
#include <QMap>
#include <QString>

#include <optional>

class QJsonValue;

namespace brinmoor {

// One JSON value of an incoming frame, with the kind decided the way the protocol
// decodes it: null, string, integer, double, boolean, object, array, first match wins.
class JSONValue {
public:
    enum class Kind { String, Int, Double, Bool, Object, Array, Null };
    using Object = QMap<QString, JSONValue>;
    using Array = QList<JSONValue>;

    JSONValue() = default;
    static JSONValue fromString(const QString& text);
    static JSONValue fromInt(qint64 number);
    static JSONValue fromDouble(double number);
    static JSONValue fromBool(bool flag);
    static JSONValue fromObject(const Object& object);
    static JSONValue fromArray(const Array& array);

    // Absent for a value that is none of the JSON kinds (an undefined QJsonValue).
    static std::optional<JSONValue> decode(const QJsonValue& value);

    Kind kind() const { return m_kind; }
    bool isNull() const { return m_kind == Kind::Null; }
    // The text of a string value; absent for every other kind.
    std::optional<QString> stringValue() const;
    // The flag of a boolean value; absent for every other kind.
    std::optional<bool> boolValue() const;
    // An integer yields itself, a double its value truncated toward zero, anything
    // else (strings included) nothing. A double that is not finite or lies outside
    // the signed 64-bit range yields nothing too: it is bad input, which the reader
    // refuses (see `isOutOfRange`), never a number clamped or wrapped into range.
    std::optional<qint64> intValue() const;
    // Whether this is a number that no integer can hold (not finite, or outside the
    // signed 64-bit range).
    bool isOutOfRange() const;
    // The number as a message shows it ("1e+300"); empty for anything but a number.
    QString numberText() const;
    const Object& objectValue() const { return m_object; }
    const Array& arrayValue() const { return m_array; }

    bool operator==(const JSONValue& other) const = default;

private:
    Kind m_kind = Kind::Null;
    QString m_string;
    qint64 m_int = 0;
    double m_double = 0;
    bool m_bool = false;
    Object m_object;
    Array m_array;
};

} // namespace brinmoor
