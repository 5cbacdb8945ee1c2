#pragma once

/// Makes the embedded icons, images and fonts known to the program. They lie in a static library,
/// which registers nothing by itself. Call once on the GUI thread, after the application object
/// exists (fonts need it) and before the first window. Roboto becomes the application's font; a
/// face that cannot be loaded is logged and left to the system's substitute.
void loadResources();
