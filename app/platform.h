#pragma once

/// Before the application object is made: on Windows, has Qt draw texts with FreeType, which it
/// brings, as on other systems. Our fonts have no hints, without which GDI draws them badly.
/// Whoever has set QT_QPA_PLATFORM has chosen already. Does nothing elsewhere. GUI thread.
void choosePlatform();
/// After it was made: programs that are started must not inherit the choice.
void forgetPlatform();

/// Ends the process at once, whatever its threads are doing, with `result` as its exit code.
[[noreturn]] void endProcess(int result);
