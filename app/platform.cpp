#include "app/platform.h"

#include <QByteArray>

#include <cstdlib>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

namespace {

#ifdef Q_OS_WIN
constexpr const char* platformVariable = "QT_QPA_PLATFORM";
bool platformIsOurs = false;
#endif

} // namespace

void choosePlatform()
{
#ifdef Q_OS_WIN
    platformIsOurs = !qEnvironmentVariableIsSet(platformVariable) &&
                     qputenv(platformVariable, QByteArrayLiteral("windows:fontengine=freetype"));
#endif
}

void forgetPlatform()
{
#ifdef Q_OS_WIN
    if (platformIsOurs)
        qunsetenv(platformVariable);
#endif
}

void endProcess(int result)
{
#ifdef Q_OS_WIN
    // An exit would let every library tidy up, under locks of threads that are gone by then.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(result));
#endif
    std::_Exit(result);
}
