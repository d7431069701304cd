#include "protocol/json_value.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QLocale>
#include <QVariant>

#include <cmath>

namespace brinmoor {

namespace {

// 2^63: the first double above the signed 64-bit range. -2^63 is still inside it.
constexpr double kInt64Limit = 9223372036854775808.0;

bool fitsInt64(double number)
{
    return std::isfinite(number) && number >= -kInt64Limit && number < kInt64Limit;
}

} // namespace

JSONValue JSONValue::fromString(const QString& text)
{
    JSONValue value;
    value.m_kind = Kind::String;
    value.m_string = text;
    return value;
}

JSONValue JSONValue::fromInt(qint64 number)
{
    JSONValue value;
    value.m_kind = Kind::Int;
    value.m_int = number;
    return value;
}

JSONValue JSONValue::fromDouble(double number)
{
    JSONValue value;
    value.m_kind = Kind::Double;
    value.m_double = number;
    return value;
}

JSONValue JSONValue::fromBool(bool flag)
{
    JSONValue value;
    value.m_kind = Kind::Bool;
    value.m_bool = flag;
    return value;
}

JSONValue JSONValue::fromObject(const Object& object)
{
    JSONValue value;
    value.m_kind = Kind::Object;
    value.m_object = object;
    return value;
}

JSONValue JSONValue::fromArray(const Array& array)
{
    JSONValue value;
    value.m_kind = Kind::Array;
    value.m_array = array;
    return value;
}

std::optional<JSONValue> JSONValue::decode(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Null: return JSONValue();
    case QJsonValue::String: return fromString(value.toString());
    case QJsonValue::Double: {
        // The integer kind is tried before the double: 80 and 80.0 are integers,
        // 80.5 and numbers beyond the 64-bit range are doubles.
        const QVariant number = value.toVariant();
        if (number.typeId() == QMetaType::LongLong)
            return fromInt(number.toLongLong());
        const double d = value.toDouble();
        if (fitsInt64(d) && std::trunc(d) == d)
            return fromInt(static_cast<qint64>(d));
        return fromDouble(d);
    }
    case QJsonValue::Bool: return fromBool(value.toBool());
    case QJsonValue::Object: {
        Object object;
        const QJsonObject source = value.toObject();
        for (auto it = source.begin(); it != source.end(); ++it) {
            std::optional<JSONValue> member = decode(it.value());
            if (!member)
                return std::nullopt;
            object.insert(it.key(), *member);
        }
        return fromObject(object);
    }
    case QJsonValue::Array: {
        Array array;
        const QJsonArray source = value.toArray();
        array.reserve(source.size());
        for (const QJsonValue& item : source) {
            std::optional<JSONValue> element = decode(item);
            if (!element)
                return std::nullopt;
            array.append(*element);
        }
        return fromArray(array);
    }
    case QJsonValue::Undefined: break;
    }
    return std::nullopt;
}

std::optional<QString> JSONValue::stringValue() const
{
    if (m_kind != Kind::String)
        return std::nullopt;
    return m_string;
}

std::optional<bool> JSONValue::boolValue() const
{
    if (m_kind != Kind::Bool)
        return std::nullopt;
    return m_bool;
}

std::optional<qint64> JSONValue::intValue() const
{
    if (m_kind == Kind::Int)
        return m_int;
    if (m_kind != Kind::Double || !fitsInt64(m_double))
        return std::nullopt;
    return static_cast<qint64>(m_double);
}

bool JSONValue::isOutOfRange() const
{
    return m_kind == Kind::Double && !fitsInt64(m_double);
}

QString JSONValue::numberText() const
{
    if (m_kind == Kind::Int)
        return QString::number(m_int);
    if (m_kind == Kind::Double)
        return QString::number(m_double, 'g', QLocale::FloatingPointShortest);
    return QString();
}

} // namespace brinmoor
