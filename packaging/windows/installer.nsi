; The installer: for one user, without administrator rights. packaging/windows/build calls it with
; VERSION, PORTABLE (the folder to install), SIZE (its KiB), FILES (its lists), ICON, PICTURE and
; OUTPUT.
Target amd64-unicode
ManifestDPIAware true
ManifestLongPathAware true
ManifestSupportedOS Win10
RequestExecutionLevel user
AllowSkipFiles off ; half a launcher is none
SetCompressor /SOLID lzma

!include "MUI2.nsh"
!include "LogicLib.nsh"
!include "WinVer.nsh"
!include "${FILES}"

!define PROGRAM "varnel-launcher.exe"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\VarnelLauncher"

Name "Varnel Simulator"
OutFile "${OUTPUT}"
BrandingText " "
; The launcher installs the simulator beside itself: its folder has to be the user's own.
!define USUAL_FOLDER "$LOCALAPPDATA\Programs\Varnel Simulator"
InstallDir "${USUAL_FOLDER}"
InstallDirRegKey HKCU "${UNINSTALL_KEY}" "InstallLocation"

VIProductVersion "${VERSION}.0"
VIAddVersionKey "CompanyName" "Varnel"
VIAddVersionKey "FileDescription" "Varnel Simulator setup"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "LegalCopyright" "Varnel"
VIAddVersionKey "ProductName" "Varnel Simulator"
VIAddVersionKey "ProductVersion" "${VERSION}"

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_WELCOMEFINISHPAGE_BITMAP "${PICTURE}"
!define MUI_WELCOMEFINISHPAGE_BITMAP_STRETCH FitControl
!define MUI_ABORTWARNING
!define MUI_FINISHPAGE_RUN "$INSTDIR\${PROGRAM}"
!insertmacro MUI_PAGE_WELCOME
!define MUI_PAGE_CUSTOMFUNCTION_LEAVE RefuseForeignFolder
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
; The first is for users of any other language.
!insertmacro MUI_LANGUAGE "English"
!insertmacro MUI_LANGUAGE "Russian"

LangString TooOld ${LANG_ENGLISH} "Varnel Simulator needs Windows 10 or newer."
LangString TooOld ${LANG_RUSSIAN} "Для Varnel Simulator нужна Windows 10 или новее."
LangString Running ${LANG_ENGLISH} "Varnel Simulator is running. Close it and try again."
LangString Running ${LANG_RUSSIAN} "Varnel Simulator запущен. Закройте его и повторите попытку."
LangString SimulatorRunning ${LANG_ENGLISH} "Files in $INSTDIR\simulator are in use. Close the \
simulator and everything that shows this folder, and try again."
LangString SimulatorRunning ${LANG_RUSSIAN} "Файлы в папке $INSTDIR\simulator используются. Закройте \
симулятор и всё, что показывает эту папку, и повторите попытку."
LangString NotEmpty ${LANG_ENGLISH} "The folder $INSTDIR is not empty. Choose a new or an empty one."
LangString NotEmpty ${LANG_RUSSIAN} "Папка $INSTDIR не пуста. Выберите новую или пустую папку."
LangString OldStays ${LANG_ENGLISH} "The previous version of the launcher could not be removed."
LangString OldStays ${LANG_RUSSIAN} "Не удалось удалить предыдущую версию программы запуска."
LangString RemoveData ${LANG_ENGLISH} "Also remove the installed simulator and the settings?$\n$\n\
If you answer Yes, the folder $INSTDIR\simulator is removed with everything in it, your own files such \
as recordings included.$\n$\nIf you answer No, all of this stays in $INSTDIR."
LangString RemoveData ${LANG_RUSSIAN} "Удалить также установленный симулятор и настройки?$\n$\n\
Если ответить «Да», папка $INSTDIR\simulator будет удалена со всем содержимым, включая ваши \
собственные файлы, например записи полётов.$\n$\nЕсли ответить «Нет», всё это останется в папке $INSTDIR."
LangString DataStays ${LANG_ENGLISH} "Some files could not be removed; they are left in $INSTDIR."
LangString DataStays ${LANG_RUSSIAN} "Некоторые файлы не удалось удалить; они остались в папке $INSTDIR."

; A program that runs cannot be opened for writing.
!macro RefuseWhileRunning
  ${Do}
    ${IfNot} ${FileExists} "$INSTDIR\${PROGRAM}"
      ${Break}
    ${EndIf}
    ClearErrors
    FileOpen $0 "$INSTDIR\${PROGRAM}" a
    ${IfNot} ${Errors}
      FileClose $0
      ${Break}
    ${EndIf}
    ${If} ${Cmd} `MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION "$(Running)" /SD IDCANCEL IDCANCEL`
      SetErrorLevel 2
      Abort
    ${EndIf}
  ${Loop}
!macroend

Function .onInit
  ${IfNot} ${AtLeastWin10}
    MessageBox MB_OK|MB_ICONSTOP "$(TooOld)" /SD IDOK
    SetErrorLevel 2
    Abort
  ${EndIf}
FunctionEnd

; The uninstaller removes folders by their names: none of another program may be there.
Function RefuseForeignFolder
  ${If} ${FileExists} "$INSTDIR\vl.json"
  ${OrIf} ${FileExists} "$INSTDIR\${PROGRAM}"
  ${OrIf} "$INSTDIR" == "${USUAL_FOLDER}"
    Return
  ${EndIf}
  FindFirst $0 $1 "$INSTDIR\*"
  ${Do}
    ${If} $1 != "."
    ${AndIf} $1 != ".."
      ${Break}
    ${EndIf}
    FindNext $0 $1
  ${Loop}
  FindClose $0
  ${If} $1 != ""
    MessageBox MB_OK|MB_ICONEXCLAMATION "$(NotEmpty)" /SD IDOK
    SetErrorLevel 2
    Abort
  ${EndIf}
FunctionEnd

Section
  Call RefuseForeignFolder ; a silent installation has no pages
  !insertmacro RefuseWhileRunning
  ReadRegStr $5 HKCU "${UNINSTALL_KEY}" "ConfigTime"
  ; An older version takes away what it brought; vl.json, settings and simulator stay.
  ${If} ${FileExists} "$INSTDIR\uninstall.exe"
    ExecWait '"$INSTDIR\uninstall.exe" /S _?=$INSTDIR' $0
    ${If} $0 != 0
      MessageBox MB_OK|MB_ICONSTOP "$(OldStays)" /SD IDOK
      SetErrorLevel 2
      Abort
    ${EndIf}
  ${EndIf}

  ; Known before anything is written: what stops halfway can still be removed.
  SetOutPath "$INSTDIR"
  WriteUninstaller "$INSTDIR\uninstall.exe"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayName" "Varnel Simulator"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\${PROGRAM}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "Publisher" "Varnel"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKCU "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "EstimatedSize" ${SIZE}
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoRepair" 1

  !insertmacro InstallFiles
  ; vl.json follows the program until somebody has edited it.
  SetOutPath "$INSTDIR"
  GetFileTime "$INSTDIR\vl.json" $0 $1
  ${IfNot} ${FileExists} "$INSTDIR\vl.json"
  ${OrIf} "$0 $1" == $5
    File "${PORTABLE}/vl.json"
    GetFileTime "$INSTDIR\vl.json" $0 $1
    StrCpy $5 "$0 $1"
  ${EndIf}
  WriteRegStr HKCU "${UNINSTALL_KEY}" "ConfigTime" "$5"
  CreateShortCut "$SMPROGRAMS\Varnel Simulator.lnk" "$INSTDIR\${PROGRAM}"
SectionEnd

; Removes the folder named on the stack and all in it. A link to another place goes, what lies there
; does not.
Function un.RemoveTree
  Exch $0
  Push $1
  Push $2
  FindFirst $1 $2 "$0\*"
  ${DoUntil} $2 == ""
    ${If} $2 != "."
    ${AndIf} $2 != ".."
      System::Call 'kernel32::GetFileAttributesW(w "$0\$2") i .r3'
      IntOp $4 $3 & 0x10 ; FILE_ATTRIBUTE_DIRECTORY
      IntOp $3 $3 & 0x400 ; FILE_ATTRIBUTE_REPARSE_POINT
      ${If} $4 = 0
        Delete "$0\$2"
      ${ElseIf} $3 <> 0
        RMDir "$0\$2"
      ${Else}
        Push "$0\$2"
        Call un.RemoveTree
      ${EndIf}
    ${EndIf}
    FindNext $1 $2
  ${Loop}
  FindClose $1
  RMDir "$0"
  Pop $2
  Pop $1
  Pop $0
FunctionEnd

Section "Uninstall"
  !insertmacro RefuseWhileRunning
  ; What the launcher made is the user's, and only its update library can tell the simulator's files
  ; from the user's own. Where nobody can be asked all of it stays.
  StrCpy $6 keep
  MessageBox MB_YESNO|MB_ICONQUESTION|MB_DEFBUTTON2 "$(RemoveData)" /SD IDNO IDNO chosen
  StrCpy $6 remove
  !macro RemoveFolder name
    ${If} ${FileExists} "$INSTDIR\${name}\*"
      Push "\\?\$INSTDIR\${name}" ; paths may be longer than what Windows takes otherwise
      Call un.RemoveTree
    ${EndIf}
  !macroend
  !insertmacro RemoveFolder "simulator.removed"
  ; All or nothing: a folder in which a program runs cannot be renamed.
  ${DoWhile} ${FileExists} "$INSTDIR\simulator\*"
    ClearErrors
    Rename "$INSTDIR\simulator" "$INSTDIR\simulator.removed"
    ${If} ${Errors}
    ${AndIf} ${Cmd} `MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION "$(SimulatorRunning)" IDCANCEL`
      SetErrorLevel 2
      Abort
    ${EndIf}
  ${Loop}
chosen:

  !insertmacro RemoveFiles
  Delete "$INSTDIR\uninstall.exe"
  ; Another copy may have been installed since.
  ReadRegStr $0 HKCU "${UNINSTALL_KEY}" "InstallLocation"
  ${If} $0 == $INSTDIR
    Delete "$SMPROGRAMS\Varnel Simulator.lnk"
    DeleteRegKey HKCU "${UNINSTALL_KEY}"
  ${EndIf}

  ${If} $6 == remove
    !insertmacro RemoveFolder "simulator.removed"
    !insertmacro RemoveFolder "simulator.vl"
    !insertmacro RemoveFolder "catalogue"
    !insertmacro RemoveFolder "manifests"
    Delete "$INSTDIR\config.ini"
    Delete "$INSTDIR\current.log"
    Delete "$INSTDIR\descriptions.json"
    Delete "$INSTDIR\installed.json"
    Delete "$INSTDIR\removed.json"
    Delete "$INSTDIR\switch.json"
    Delete "$INSTDIR\.*.vl-tmp"
    Delete "$INSTDIR\vl.lock"
    Delete "$INSTDIR\vl.json"
    ${If} ${FileExists} "$INSTDIR\simulator.removed\*"
    ${OrIf} ${FileExists} "$INSTDIR\vl.json"
      MessageBox MB_OK|MB_ICONEXCLAMATION "$(DataStays)" /SD IDOK
    ${EndIf}
  ${EndIf}
  SetOutPath "$TEMP" ; not in the folder that is to go
  RMDir "$INSTDIR"
SectionEnd
