#pragma once

class QWidget;

/// Lets the window system treat a frameless window like any other. Windows snaps a window to the
/// screen's edges and halves only if it has a sizing frame: it gets one, which takes no room, and a
/// maximised window leaves the task bar free, one that hides itself included. Also puts the window
/// into the middle of its screen, no larger than that. Does nothing on other systems. `window` is a
/// top-level one that has not been shown. GUI thread.
void installNativeFrame(QWidget& window);
