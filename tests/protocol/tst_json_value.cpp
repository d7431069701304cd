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

    void doubleOutsideTheRangeIsFatal_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("printed");
        QTest::newRow("1e300") << QByteArray("1e300") << QStringLiteral("1e+300");
        QTest::newRow("-1e19") << QByteArray("-1e19") << QStringLiteral("-1e+19");
        QTest::newRow("2^63") << QByteArray("9223372036854775808.0") << QStringLiteral("9223372036854776000");
    }
    void doubleOutsideTheRangeIsFatal()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, printed);
        QProcess helper;
        helper.start(test::binDir() + QStringLiteral("/brinmoor_test_helper"),
                     {QStringLiteral("int-value"), QString::fromLatin1(json)});
        QVERIFY(helper.waitForFinished(10000));
        QCOMPARE(helper.exitStatus(), QProcess::CrashExit);
        const QString out = QString::fromUtf8(helper.readAllStandardOutput());
        const QStringList lines = out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 1);
        const QRegularExpression line(
            QStringLiteral("^\\[BrinmoorMacAgent\\]\\[\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ\\] (.*)$"));
        const QRegularExpressionMatch match = line.match(lines.first());
        QVERIFY2(match.hasMatch(), qPrintable(lines.first()));
        QCOMPARE(match.captured(1),
                 QStringLiteral("JSONValue.intValue fatal value=") + printed +
                     QStringLiteral(" error=double is not finite or outside the signed 64-bit range"));
    }

    void helperPrintsInRangeValues()
    {
        QProcess helper;
        helper.start(test::binDir() + QStringLiteral("/brinmoor_test_helper"),
                     {QStringLiteral("int-value"), QStringLiteral("80.9")});
        QVERIFY(helper.waitForFinished(10000));
        QCOMPARE(helper.exitStatus(), QProcess::NormalExit);
        QCOMPARE(helper.readAllStandardOutput(), QByteArray("80\n"));
    }
};

QTEST_GUILESS_MAIN(TstJsonValue)
#include "tst_json_value.moc"
