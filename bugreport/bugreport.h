#pragma once

#include <QString>
#include <QStringList>

/// What the user reports.
struct BugReport
{
    QString subject;
    QString body;
    /// Paths of at most 5 files.
    QStringList attachedFiles;
};

/// Sends `report` to the collector at 127.0.0.1:52800. Blocks until a connection is made (30 s at
/// most) and the message is built. Returns false when there is no connection, true otherwise.
///
/// The message is handed to the socket and not waited for: what the system does not take at once
/// leaves while the caller's event loop runs, also after the return, and nothing reports a failure
/// from then on. Attachments that cannot be opened are left out. The message is held in memory
/// once. Needs a thread with an event loop.
bool sendBugReport(const BugReport& report);
