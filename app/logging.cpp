#include "app/logging.h"

#include "app/paths.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QLatin1String>
#include <QStringConverter>
#include <QTextStream>

#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace {

/// The log file. Messages are logged during the destruction of statics too, so there is no moment
/// at which it could be destroyed: the one object is left to the end of the process, and every
/// line is flushed, which also keeps the last words of a crash.
class LogFile final
{
public:
    void append(QtMsgType type, const QMessageLogContext& context, const QString& text);
    void flush();

private:
    bool open();
    void write(const QString& line);

    /// More than start-up logs before the application object exists.
    static constexpr std::size_t maxEarlyLines = 100;

    std::mutex m_mutex;
    /// Logged before the directory of the log is known.
    std::vector<QString> m_earlyLines;
    std::optional<QFile> m_file;
    std::optional<QTextStream> m_stream;
};

bool LogFile::open()
{
    if (!m_file) {
        if (QCoreApplication::instance() == nullptr)
            return false;
        m_file.emplace(applicationDirectory().absolutePath() % QDir::separator() %
                       QLatin1String("current.log"));
    }
    // Unbuffered: a line that the disk refuses is dropped instead of piling up in memory.
    if (!m_file->isOpen() &&
        !m_file->open(QIODevice::Append | QIODevice::Text | QIODevice::Unbuffered))
        return false;
    if (!m_stream) {
        m_stream.emplace(&*m_file);
        // Passes the bytes of the local encoding through as they are.
        m_stream->setEncoding(QStringConverter::Latin1);
    }
    return true;
}

void LogFile::write(const QString& line)
{
    *m_stream << QLatin1String(line.toLocal8Bit()) << '\n';
    m_stream->flush();
    m_stream->resetStatus(); // or one failure would silence the stream for good
}

void LogFile::append(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    const std::lock_guard lock(m_mutex);
    // Under the lock, so that the times in the log never go back.
    const QString line = qFormatLogMessage(type, context, text);
    if (open()) {
        for (const QString& early : std::exchange(m_earlyLines, {}))
            write(early);
        write(line);
    } else if (!m_file && m_earlyLines.size() < maxEarlyLines) {
        m_earlyLines.push_back(line);
    }
}

void LogFile::flush()
{
    const std::lock_guard lock(m_mutex);
    if (m_stream)
        m_stream->flush();
}

LogFile& logFile()
{
    static auto* const file = new LogFile;
    return *file;
}

/// Qt may warn while the log is being written; such a message is dropped.
thread_local bool insideHandler = false;

QDebug debugMessage()
{
    return QMessageLogger().debug();
}

} // namespace

void installLogging()
{
    qSetMessagePattern(QStringLiteral("[%{time}] - %{type} - %{message}"));
    qInstallMessageHandler(logMessage);
}

void logMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (insideHandler)
        return;
    insideHandler = true;
    logFile().append(type, context, text);
    insideHandler = false;
}

void flushLog()
{
    logFile().flush();
}

windowbuf::int_type windowbuf::overflow(int_type c)
{
    if (pptr() != pbase() && sync() == -1)
        return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        const char text[] = {traits_type::to_char_type(c), '\0'};
        debugMessage() << text;
    }
    setp(pbase(), epptr());
    return 0;
}

std::streamsize windowbuf::xsputn(const char* s, std::streamsize n)
{
    if (sync() == -1)
        return 0;
    debugMessage() << s;
    return static_cast<std::int32_t>(n);
}

int windowbuf::sync()
{
    const std::ptrdiff_t pending = pptr() - pbase();
    if (pending == 0)
        return 0;
    if (pending != static_cast<std::int32_t>(pending))
        return -1;
    debugMessage() << pbase();
    return 0;
}
