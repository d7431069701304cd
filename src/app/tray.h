#pragma once

namespace brinmoor {

// The menu-bar / tray application. Built with Qt Widgets when the build has them; a
// build without widgets runs headless instead.
namespace Tray {

// Runs the tray when a display and a system tray are available, otherwise headless
// (said in one log line). Creates the application object itself.
int run(int argc, char** argv);

} // namespace Tray

} // namespace brinmoor
