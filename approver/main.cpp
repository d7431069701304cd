// MCPApprovalServer: the tool `claude` and `codex` call to ask the phone whether an
// action may run. It speaks MCP on standard input and output.
#include "mcp_approval_server.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

using namespace brinmoor::approver;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    MCPApprovalServer server(settingsFromEnvironment(), [](const QByteArray& line) {
        std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    });

    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char buffer[65536];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (n <= 0) {
            // The client closed our input: it is done with us.
            input.setEnabled(false);
            server.shutdown();
            QCoreApplication::quit();
            return;
        }
        pending.append(buffer, n);
        qsizetype start = 0;
        for (qsizetype newline; (newline = pending.indexOf('\n', start)) >= 0; start = newline + 1) {
            QByteArray line = pending.mid(start, newline - start);
            if (line.endsWith('\r'))
                line.chop(1);
            server.handleLine(line);
        }
        pending.remove(0, start);
    });
    return QCoreApplication::exec();
}
