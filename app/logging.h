#pragma once

#include <QtGlobal>

#include <streambuf>

class QMessageLogContext;
class QString;

/// Sets the pattern of the log's lines and sends every message of the program to "current.log" in
/// the application directory. To be called before any Qt object is made.
void installLogging();

/// The message handler: appends one line to the log. Takes every type of message, from any thread,
/// before the application object exists and after it is gone. A log that cannot be opened or
/// written costs the message and nothing else; the next message tries again.
void logMessage(QtMsgType type, const QMessageLogContext& context, const QString& text);

/// Hands everything logged so far to the operating system. For a caller about to end the process
/// without its usual clean-up.
void flushLog();

/// Turns what the update library writes to its log into debug messages of the program: each write
/// becomes a message of its own. It has no put area, so nothing is ever held back. Must outlive its
/// registration with the library.
class windowbuf : public std::basic_streambuf<char>
{
protected:
    /// Logs the single character `c`; nothing for end of file. Returns 0.
    int_type overflow(int_type c) override;
    /// Logs `s` up to its terminating NUL, whatever `n` says. Returns `n`.
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    /// Logs what is in the put area. Returns 0, or -1 when its size exceeds 32 bits.
    int sync() override;
};
