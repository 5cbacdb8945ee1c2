# The one place for the language standard, warnings, sanitizers and strict Qt defines.
add_library(varnel_common_config INTERFACE)
target_compile_features(varnel_common_config INTERFACE cxx_std_20)
target_include_directories(varnel_common_config INTERFACE "${PROJECT_SOURCE_DIR}")
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

# Of C++ alone: the compiler of Windows resources knows none of them.
target_compile_options(varnel_common_config INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:\
-Wall;-Wextra;-Wpedantic;-Wshadow;-Wconversion;-Wnon-virtual-dtor;-Woverloaded-virtual;\
$<$<BOOL:${VARNEL_WARNINGS_AS_ERRORS}>:-Werror>>")

if(WIN32)
    # Windows 10 is the oldest; every call that takes texts takes wide ones.
    target_compile_definitions(varnel_common_config INTERFACE
        _WIN32_WINNT=0x0A00 UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX)
    # A program completes launcher_core with the update library of its choice, which this linker
    # would have looked through before it comes to launcher_core.
    string(REPLACE "<LINK_LIBRARIES>" "-Wl,--start-group <LINK_LIBRARIES> -Wl,--end-group"
        CMAKE_CXX_LINK_EXECUTABLE "${CMAKE_CXX_LINK_EXECUTABLE}")
endif()

if(VARNEL_SANITIZE)
    target_compile_options(varnel_common_config INTERFACE
        -fsanitize=${VARNEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(varnel_common_config INTERFACE -fsanitize=${VARNEL_SANITIZE})
endif()

add_library(varnel_qt_config INTERFACE)
target_compile_definitions(varnel_qt_config INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_CAST_FROM_BYTEARRAY
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_KEYWORDS
    QT_NO_FOREACH
    QT_USE_QSTRINGBUILDER
    QT_DISABLE_DEPRECATED_BEFORE=0x060400)
