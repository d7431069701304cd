#include "app/tray.h"

#include "agent/diag.h"
#include "app/headless.h"

#include <QCoreApplication>

namespace brinmoor::Tray {

int run(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    diag(QStringLiteral("tray unavailable reason=built without widgets, running headless"));
    return runHeadless();
}

} // namespace brinmoor::Tray
