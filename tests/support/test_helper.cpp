// A small program whose behaviour a test picks by its first argument, for tests that
// need a real process doing one odd thing.
//   int-value JSON   decode JSON as a payload value and print its intValue (or "none")
#include "agent/json_value.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstring>

using namespace brinmoor;

namespace {

int intValue(const char* json)
{
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray("{\"v\":") + json + QByteArray("}"));
    const std::optional<JSONValue> value = JSONValue::decode(document.object().value("v"));
    if (!value) {
        std::puts("undecodable");
        return 3;
    }
    const std::optional<qint64> number = value->intValue();
    if (number)
        std::printf("%lld\n", static_cast<long long>(*number));
    else
        std::puts("none");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "int-value") == 0)
        return intValue(argv[2]);
    std::fprintf(stderr, "test_helper: unknown mode\n");
    return 64;
}
