#include "protocol/json_value.h"
#include "support/test_support.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <csignal>

using namespace brinmoor;

namespace {

JSONValue decodeMember(const QByteArray& json)
{
    const QJsonDocument document = QJsonDocument::fromJson("{\"v\":" + json + "}");
    return JSONValue::decode(document.object().value(QStringLiteral("v"))).value();
}

} // namespace

class TstJsonValue : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void decodeOrderPicksTheKind_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<int>("kind");
        QTest::newRow("null") << QByteArray("null") << int(JSONValue::Kind::Null);
        QTest::newRow("string") << QByteArray("\"80\"") << int(JSONValue::Kind::String);
        QTest::newRow("integer 80") << QByteArray("80") << int(JSONValue::Kind::Int);
        QTest::newRow("double 80.5") << QByteArray("80.5") << int(JSONValue::Kind::Double);
        QTest::newRow("true") << QByteArray("true") << int(JSONValue::Kind::Bool);
        QTest::newRow("object") << QByteArray("{\"a\":1}") << int(JSONValue::Kind::Object);
        QTest::newRow("array") << QByteArray("[1,\"x\"]") << int(JSONValue::Kind::Array);
        QTest::newRow("huge integer is a double") << QByteArray("1e300") << int(JSONValue::Kind::Double);
    }
    void decodeOrderPicksTheKind()
    {
        QFETCH(QByteArray, json);
        QFETCH(int, kind);
        QCOMPARE(int(decodeMember(json).kind()), kind);
    }

    void nestedValuesKeepTheirKinds()
    {
        const JSONValue value = decodeMember(R"({"a":[1,2.5,"s",false,null],"b":{"c":-7}})");
        const JSONValue::Array a = value.objectValue().value(QStringLiteral("a")).arrayValue();
        QCOMPARE(a.size(), 5);
        QCOMPARE(a[0], JSONValue::fromInt(1));
        QCOMPARE(a[1], JSONValue::fromDouble(2.5));
        QCOMPARE(a[2], JSONValue::fromString(QStringLiteral("s")));
        QCOMPARE(a[3], JSONValue::fromBool(false));
        QVERIFY(a[4].isNull());
        QCOMPARE(value.objectValue().value(QStringLiteral("b")).objectValue().value(QStringLiteral("c")),
                 JSONValue::fromInt(-7));
    }

    void colsAsDoubleIsTruncated()
    {
        QCOMPARE(decodeMember("80.9").intValue(), std::optional<qint64>(80));
        QCOMPARE(decodeMember("-80.9").intValue(), std::optional<qint64>(-80));
        QCOMPARE(decodeMember("80").intValue(), std::optional<qint64>(80));
    }

    void colsAsStringCountsAsAbsent()
    {
        QCOMPARE(decodeMember("\"80\"").intValue(), std::nullopt);
        QCOMPARE(decodeMember("true").intValue(), std::nullopt);
        QCOMPARE(decodeMember("null").intValue(), std::nullopt);
        QCOMPARE(decodeMember("[80]").intValue(), std::nullopt);
    }

    void int64BoundsAreKept()
    {
        QCOMPARE(decodeMember("9223372036854775807").intValue(),
                 std::optional<qint64>(std::numeric_limits<qint64>::max()));
        QCOMPARE(JSONValue::fromDouble(-9223372036854775808.0).intValue(),
                 std::optional<qint64>(std::numeric_limits<qint64>::min()));
    }

    void doubleOutsideTheRangeIsNoIntegerButOutOfRange_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("printed");
        QTest::newRow("1e300") << QByteArray("1e300") << QStringLiteral("1e+300");
        QTest::newRow("-1e19") << QByteArray("-1e19") << QStringLiteral("-1e+19");
        QTest::newRow("1e19") << QByteArray("1e19") << QStringLiteral("1e+19");
        QTest::newRow("2^63") << QByteArray("9223372036854775808") << QStringLiteral("9223372036854776000");
        QTest::newRow("2^63 as a double")
            << QByteArray("9223372036854775808.0") << QStringLiteral("9223372036854776000");
    }
    void doubleOutsideTheRangeIsNoIntegerButOutOfRange()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, printed);
        const JSONValue value = decodeMember(json);
        QCOMPARE(value.intValue(), std::nullopt);
        QVERIFY(value.isOutOfRange());
        QCOMPARE(value.numberText(), printed);
    }

    void notFiniteIsOutOfRange()
    {
        QVERIFY(JSONValue::fromDouble(std::numeric_limits<double>::infinity()).isOutOfRange());
        QVERIFY(JSONValue::fromDouble(std::numeric_limits<double>::quiet_NaN()).isOutOfRange());
        QCOMPARE(JSONValue::fromDouble(std::numeric_limits<double>::quiet_NaN()).intValue(), std::nullopt);
    }

    void inRangeNumbersAndOtherKindsAreNotOutOfRange()
    {
        QVERIFY(!decodeMember("80.9").isOutOfRange());
        QVERIFY(!decodeMember("9223372036854775807").isOutOfRange());
        QVERIFY(!decodeMember("\"1e300\"").isOutOfRange());
        QCOMPARE(decodeMember("\"1e300\"").numberText(), QString());
        QCOMPARE(decodeMember("80").numberText(), QStringLiteral("80"));
    }
};

QTEST_GUILESS_MAIN(TstJsonValue)
#include "tst_json_value.moc"
