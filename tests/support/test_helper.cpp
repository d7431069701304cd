// A small program whose behaviour a test picks by its first argument, for tests that
// need a real process doing one odd thing.
//   mcp-call CONFIG TOOL INPUT
//                    act as an assistant tool asking for permission: start the "approver"
//                    server of an MCP config file as the tool would, call its
//                    "request_permission" for TOOL with INPUT (JSON), print the answer text
//   certificates DIR ALTNAME...
//                    make a test certificate authority and a server certificate for the
//                    subject alternative names ("DNS:brinmoor.test", "IP:127.0.0.1"), write
//                    root.pem, server.pem and server-key.pem into DIR and print the SHA-256
//                    of the server's public key in base64 (what Chromium takes to trust it)
//   machine          print, as one JSON line each, the program's path, bundle folder and
//                    local server as the agent finds them: first without an application
//                    object, then with one
#include "config/machine.h"
#include "protocol/json_value.h"
#include "server_host/local_server_runtime.h"
#include "test_certificate_authority.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cstdio>
#include <cstring>
#include <utility>

using namespace brinmoor;

namespace {

QByteArray line(const QJsonObject& message)
{
    return QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n';
}

int mcpCall(const char* configPath, const char* toolName, const char* input)
{
    QFile file(QString::fromLocal8Bit(configPath));
    if (!file.open(QIODevice::ReadOnly)) {
        std::puts("config unreadable");
        return 3;
    }
    const QJsonObject server =
        QJsonDocument::fromJson(file.readAll()).object().value("mcpServers").toObject().value("approver").toObject();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QJsonObject serverEnv = server.value("env").toObject();
    for (auto it = serverEnv.begin(); it != serverEnv.end(); ++it)
        env.insert(it.key(), it.value().toString());
    QStringList args;
    for (const QJsonValue& arg : server.value("args").toArray())
        args.append(arg.toString());
    QProcess approver;
    approver.setProcessEnvironment(env);
    approver.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    approver.start(server.value("command").toString(), args);
    if (!approver.waitForStarted(10000)) {
        std::puts("approver did not start");
        return 3;
    }
    approver.write(line({{"jsonrpc", "2.0"},
                         {"id", 1},
                         {"method", "initialize"},
                         {"params", QJsonObject{{"protocolVersion", "2025-06-18"}, {"capabilities", QJsonObject()}}}}));
    approver.write(line({{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}}));
    approver.write(
        line({{"jsonrpc", "2.0"},
              {"id", 2},
              {"method", "tools/call"},
              {"params", QJsonObject{{"name", "request_permission"},
                                     {"arguments", QJsonObject{{"tool_name", toolName},
                                                               {"input", QJsonDocument::fromJson(input).object()},
                                                               {"tool_use_id", "toolu_1"}}}}}}));
    QByteArray buffer;
    QDeadlineTimer deadline(120'000);
    while (!deadline.hasExpired()) {
        approver.waitForReadyRead(100);
        buffer += approver.readAllStandardOutput();
        qsizetype newline;
        while ((newline = buffer.indexOf('\n')) >= 0) {
            const QJsonObject message = QJsonDocument::fromJson(buffer.left(newline)).object();
            buffer.remove(0, newline + 1);
            if (message.value("id").toInt() != 2)
                continue;
            const QString text =
                message.value("result").toObject().value("content").toArray().first().toObject().value("text").toString();
            std::puts(qPrintable(text));
            approver.closeWriteChannel();
            approver.waitForFinished(10000);
            return 0;
        }
    }
    std::puts("no answer");
    approver.kill();
    approver.waitForFinished();
    return 1;
}

int certificates(const QString& dir, const QStringList& altNames)
{
    relay::TestCertificateAuthority authority;
    if (!authority.error().isEmpty()) {
        std::fprintf(stderr, "test_helper: %s\n", qPrintable(authority.error()));
        return 1;
    }
    const relay::TestCertificateAuthority::Issued issued = authority.issue(altNames.first().section(':', 1), altNames);
    if (issued.certificate.isEmpty()) {
        std::fprintf(stderr, "test_helper: %s\n", qPrintable(authority.error()));
        return 1;
    }
    const QDir target(dir);
    for (const auto& [from, to] : {std::pair{authority.rootCertificate(), QStringLiteral("root.pem")},
                                   std::pair{issued.certificate, QStringLiteral("server.pem")},
                                   std::pair{issued.key, QStringLiteral("server-key.pem")}}) {
        QFile::remove(target.filePath(to));
        if (!QFile::copy(from, target.filePath(to))) {
            std::fprintf(stderr, "test_helper: cannot write %s\n", qPrintable(target.filePath(to)));
            return 1;
        }
    }
    std::printf("%s\n", relay::spkiSha256(issued.certificate).constData());
    return 0;
}

void printMachine()
{
    const Machine machine = Machine::current();
    const std::optional<QString> server = LocalServerRuntime::resolveServerBinaryPath();
    const QJsonObject found{{"executablePath", machine.executablePath},
                            {"bundleDirectory", machine.bundleDirectory},
                            {"serverPath", server ? QJsonValue(*server) : QJsonValue()}};
    std::fputs(line(found).constData(), stdout);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "machine") == 0) {
        printMachine();
        QCoreApplication app(argc, argv);
        printMachine();
        return 0;
    }
    if (argc == 5 && std::strcmp(argv[1], "mcp-call") == 0)
        return mcpCall(argv[2], argv[3], argv[4]);
    if (argc >= 4 && std::strcmp(argv[1], "certificates") == 0) {
        QStringList altNames;
        for (int i = 3; i < argc; ++i)
            altNames.append(QString::fromLocal8Bit(argv[i]));
        return certificates(QString::fromLocal8Bit(argv[2]), altNames);
    }
    std::fprintf(stderr, "test_helper: unknown mode\n");
    return 64;
}
