# Cross-builds for 64-bit Windows with Debian's MinGW-w64 (POSIX threads) against the folder that
# packaging/windows/build-sdk makes.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Equal sources give equal files.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,--no-insert-timestamp)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -Wl,--no-insert-timestamp)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -Wl,--no-insert-timestamp)

if(NOT VARNEL_WINDOWS_SDK)
    set(sdk "$ENV{VARNEL_WINDOWS_SDK}")
    if(NOT sdk AND DEFINED ENV{XDG_CACHE_HOME})
        set(sdk "$ENV{XDG_CACHE_HOME}/varnel-windows-sdk")
    elseif(NOT sdk)
        set(sdk "$ENV{HOME}/.cache/varnel-windows-sdk")
    endif()
    set(VARNEL_WINDOWS_SDK "${sdk}" CACHE PATH "Folder made by packaging/windows/build-sdk")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VARNEL_WINDOWS_SDK)

# Nothing of the machine that builds may be found, but for its programs.
set(CMAKE_FIND_ROOT_PATH "${VARNEL_WINDOWS_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_PREFIX_PATH "${VARNEL_WINDOWS_SDK}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VARNEL_WINDOWS_SDK}/lib/pkgconfig:${VARNEL_WINDOWS_SDK}/share/pkgconfig")

# moc, rcc and uic are the machine's own, of the same version.
set(QT_HOST_PATH /usr CACHE PATH "Where the Qt of the machine that builds lies")
set(QT_HOST_PATH_CMAKE_DIR "/usr/lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu/cmake" CACHE PATH
    "Where the CMake files of that Qt lie")
