#include "app/tray.h"

#include "app/headless.h"
#include "base/diag.h"

#include <QCoreApplication>

namespace brinmoor::Tray {

int run(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    diag(QStringLiteral("tray unavailable reason=built without widgets, running headless"));
    return runHeadless();
}

} // namespace brinmoor::Tray
